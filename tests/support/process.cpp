#include "process.h"

#include "agentpeer.h"
#include "modbusslave.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFile>

namespace lumbra::test {
namespace {

// QProcess wants an application object; tests have none of their own.
void ensureApp()
{
    if (QCoreApplication::instance())
        return;
    static int argc = 1;
    static char name[] = "lumbra-test";
    static char *argv[] = {name, nullptr};
    static QCoreApplication app(argc, argv);
}

// The ELF machine a program is built for, 0 for anything else.
int elfMachine(const QString &path)
{
    QFile f(path);
    if (!f.open(QIODevice::ReadOnly))
        return 0;
    const QByteArray h = f.read(20);
    if (h.size() < 20 || !h.startsWith("\x7f" "ELF"))
        return 0;
    const int lo = uchar(h[18]), hi = uchar(h[19]);
    return h[5] == 2 ? (lo << 8 | hi) : (hi << 8 | lo);  // EI_DATA 2: big-endian
}

// A test that itself runs under an emulator (a cross build on the build
// host, without binfmt_misc) cannot exec a program built for the same
// target: the host kernel refuses it. LUMBRA_TEST_EMULATOR names the command
// that runs it instead; host programs (mosquitto, python3) start as they are.
QStringList emulatorFor(const QString &program)
{
    const QStringList emulator = QProcess::splitCommand(qEnvironmentVariable("LUMBRA_TEST_EMULATOR"));
    const int machine = elfMachine(program);
    if (emulator.isEmpty() || machine == 0 || machine != elfMachine("/proc/self/exe"))
        return {};
    return emulator;
}

}  // namespace

QString gatewayBinary()
{
    return QStringLiteral(LUMBRA_GATEWAY_BINARY);
}

ChildProcess::ChildProcess() : m_env(QProcessEnvironment::systemEnvironment())
{
    ensureApp();
    m_proc.setProcessChannelMode(QProcess::MergedChannels);
}


void ChildProcess::setEnv(const QString &name, const QString &value)
{
    m_env.insert(name, value);
}

ChildProcess::~ChildProcess()
{
    stop();
}

bool ChildProcess::start(const QString &program, const QStringList &args, const QString &workDir)
{
    // Without an agent the gateway's first send holds start-up for its 5 s
    // time-out; a test that brings no agent of its own gets a silent one.
    if (program == gatewayBinary() && !m_env.contains("LUMBRA_AGENT_URL")) {
        m_agent = std::make_unique<AgentPeer>(QString("tcp://127.0.0.1:%1").arg(freeTcpPort()));
        m_env.insert("LUMBRA_AGENT_URL", m_agent->url());
    }
    m_proc.setProcessEnvironment(m_env);
    m_proc.setWorkingDirectory(workDir);
    const QStringList emulator = emulatorFor(program);
    if (emulator.isEmpty())
        m_proc.start(program, args);
    else
        m_proc.start(emulator.first(), emulator.mid(1) + QStringList{program} + args);
    return m_proc.waitForStarted(5000);
}

QString ChildProcess::output()
{
    m_output += QString::fromUtf8(m_proc.readAll());
    return m_output;
}

bool ChildProcess::waitForOutput(const QString &text, int timeoutMs)
{
    QElapsedTimer t;
    t.start();
    while (!output().contains(text)) {
        if (t.elapsed() > timeoutMs)
            return false;
        if (!running())
            return output().contains(text);
        m_proc.waitForReadyRead(50);
    }
    return true;
}

bool ChildProcess::waitForExit(int timeoutMs)
{
    bool done = !running() || m_proc.waitForFinished(timeoutMs);
    output();
    return done;
}

void ChildProcess::stop()
{
    if (!running())
        return;
    m_proc.terminate();
    if (!m_proc.waitForFinished(3000)) {
        m_proc.kill();
        m_proc.waitForFinished(3000);
    }
    output();
}

void ChildProcess::kill()
{
    if (!running())
        return;
    m_proc.kill();
    m_proc.waitForFinished(3000);
    output();
}

}  // namespace lumbra::test
