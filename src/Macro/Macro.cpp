// The engine thread: the only one that enters the interpreter. It takes work
// from its queue, runs the run-once scripts once the links have polled, and
// then makes a pass over the cyclic scripts every 50 ms.
#include "Macro.h"

#include "HmiToMacroInterface.h"
#include "macrointerpreter.h"

#include "device_comm/communication.h"
#include "generalFunc/globals.h"

#include <chrono>
#include <future>

namespace {

const int kPassPauseMs = 50;
// Timer scripts and queued texts: far more than a healthy box ever holds.
const size_t kMaxQueued = 256;
// Different error texts remembered for rate limiting.
const int kMaxReports = 256;

using Outcome = lumbra::MacroInterpreter::Outcome;

}  // namespace

Macro *Macro::getInstance()
{
    static Macro instance;
    return &instance;
}

Macro::Macro() : m_hmi(std::make_unique<HmiToMacroInterface>()), m_set(std::make_shared<ScriptSet>()) {}

// A static instance outlives main(); its thread must be gone by then. The
// interpreter is left to the process's end: finalizers that scripts set
// must not run while the process tears its services down.
Macro::~Macro()
{
    m_closed = true;  // a late reload from another thread must not start it again
    stop();
    (void)m_interp.release();
}

void Macro::stop()
{
    {
        std::lock_guard<std::mutex> lock(m_queueLock);
        m_stopping = true;
        m_queue.clear();
    }
    m_abort = true;
    m_wake.notify_all();
    if (!onEngine())
        wait();
}

void Macro::post(Task task)
{
    {
        std::lock_guard<std::mutex> lock(m_queueLock);
        if (m_queue.size() >= kMaxQueued) {
            int held = 0;
            if (m_queueFull.allow(&held))
                zlog_error(g_zlog, "script queue full (%d waiting): a script is dropped (%d more since the last line)",
                           static_cast<int>(m_queue.size()), held);
            return;
        }
        m_queue.push_back(std::move(task));
    }
    m_wake.notify_all();
    ensureRunning();
}

void Macro::ensureRunning()
{
    QMutexLocker lock(&m_startLock);
    if (m_closed || (isRunning() && !m_stopping))
        return;
    if (isRunning())
        wait();  // a stop on its way
    std::lock_guard<std::mutex> queue(m_queueLock);
    m_stopping = false;
    m_abort = false;
    start();
}

bool Macro::takeTask(Task *task, int waitMs)
{
    std::unique_lock<std::mutex> lock(m_queueLock);
    const auto woken = [this] { return !m_queue.empty() || m_stopping || m_reloaded; };
    if (waitMs < 0)
        m_wake.wait(lock, woken);
    else
        m_wake.wait_for(lock, std::chrono::milliseconds(waitMs), woken);
    m_reloaded = false;
    if (m_queue.empty() || m_stopping)
        return false;
    *task = std::move(m_queue.front());
    m_queue.pop_front();
    return true;
}

bool Macro::sync(int timeoutMs)
{
    if (onEngine())
        return true;
    auto done = std::make_shared<std::promise<void>>();
    std::future<void> ready = done->get_future();
    post([done] { done->set_value(); });
    return ready.wait_for(std::chrono::milliseconds(timeoutMs)) == std::future_status::ready;
}

Macro::SetPtr Macro::scripts(unsigned *generation) const
{
    QMutexLocker lock(&m_mutex);
    if (generation)
        *generation = m_generation;
    return m_set;
}

lumbra::MacroSettings Macro::settings() const
{
    QMutexLocker lock(&m_mutex);
    return m_settings;
}

int Macro::runLua(int id)
{
    return handStored(id, false);
}

int Macro::runFromLua(int id)
{
    return handStored(id, true);
}

void Macro::runLua(const QString &text)
{
    handText(text, false);
}

void Macro::runFromLua(const QString &text)
{
    handText(text, true);
}

int Macro::handStored(int id, bool side)
{
    if (onEngine())
        return runStored(id, side);
    if (!scripts()->texts.contains(id))
        return 0;
    post([this, id, side] { runStored(id, side); });
    return 1;
}

void Macro::handText(const QString &text, bool side)
{
    if (onEngine())
        runText(text, -1, side);
    else
        post([this, text, side] { runText(text, -1, side); });
}

void Macro::run()
{
    zlog_debug(g_zlog, "Macro thread start");
    QElapsedTimer sincePass;
    while (!m_stopping) {
        if (!m_runOnceDone && startRequested())
            runOnceWhenLinksPolled();
        // Without cyclic scripts (or before the first load) the thread sleeps
        // until work is queued or the scripts are reloaded.
        int untilPass = -1;
        if (m_runOnceDone && !scripts()->cyclic.isEmpty())
            untilPass = sincePass.isValid() ? qMax(0, kPassPauseMs - static_cast<int>(sincePass.elapsed())) : 0;
        // A pass that is due goes before queued work, so a busy queue
        // cannot starve the cyclic scripts.
        if (untilPass == 0) {
            runPass();
            sincePass.start();
            continue;
        }
        Task task;
        if (takeTask(&task, untilPass))
            task();
    }
    zlog_debug(g_zlog, "Macro thread end");
}

bool Macro::startRequested() const
{
    QMutexLocker lock(&m_mutex);
    return m_initialised;
}

// Run-once scripts are there to read the plant at start-up: they wait until
// every link has an answer for what it polls, but no longer than the box
// allows, and never block start-up itself (this is the engine's thread).
void Macro::runOnceWhenLinksPolled()
{
    // Nothing to run once: nothing to wait for. Asking every link whether it
    // has polled looks at every registered address, ten thousand on a big box.
    if (scripts()->runOnce.isEmpty()) {
        m_runOnceDone = true;
        return;
    }
    const int limitMs = settings().startWaitMs;
    QElapsedTimer waited;
    waited.start();
    QStringList pending = communication::getInstance()->linksWithoutFirstPoll();
    while (!pending.isEmpty() && waited.elapsed() < limitMs) {
        std::unique_lock<std::mutex> lock(m_queueLock);
        if (m_wake.wait_for(lock, std::chrono::milliseconds(kPassPauseMs), [this] { return m_stopping.load(); }))
            return;
        lock.unlock();
        pending = communication::getInstance()->linksWithoutFirstPoll();
    }
    if (!pending.isEmpty())
        zlog_info(g_zlog, "run-once scripts start after %d ms, before link(s) %s finished a first poll cycle",
                  static_cast<int>(waited.elapsed()), pending.join(',').toLocal8Bit().constData());
    else
        zlog_info(g_zlog, "run-once scripts start: every link has polled once (%d ms)",
                  static_cast<int>(waited.elapsed()));
    m_runOnceDone = true;
    const SetPtr set = scripts();
    for (int id : set->runOnce) {
        if (m_stopping)
            return;
        runText(set->texts.value(id), id, false);
    }
}

void Macro::runPass()
{
    unsigned generation = 0;
    const SetPtr set = scripts(&generation);
    // A reload starts every period afresh, as at start-up.
    if (generation != m_seenGeneration) {
        m_seenGeneration = generation;
        m_lastRuns.clear();
        for (const Cyclic &c : set->cyclic)
            m_lastRuns[c.id].start();
    }
    for (const Cyclic &c : set->cyclic) {
        if (m_stopping)
            return;
        QElapsedTimer &last = m_lastRuns[c.id];
        if (last.isValid() && last.elapsed() < c.periodMs)
            continue;
        last.start();
        if (enabled(*set, c.id))
            runText(set->texts.value(c.id), c.id, false);
    }
}

int Macro::runStored(int id, bool side)
{
    const SetPtr set = scripts();
    auto it = set->texts.constFind(id);
    if (it == set->texts.constEnd() || !enabled(*set, id))
        return 0;
    runText(it.value(), id, side);
    return 1;
}

// A script with an enable bit runs only while the bit reads non-zero.
bool Macro::enabled(const ScriptSet &set, int id)
{
    auto it = set.saveBits.constFind(id);
    if (it == set.saveBits.constEnd())
        return true;
    const AddressInfo &a = it.value();
    uchar value[2] = {0, 0};
    communication::getInstance()->getCommValue(a.link, a.reg, a.index, a.station, 1, value, sizeof value);
    return value[0] != 0;
}

void Macro::runText(const QString &text, int id, bool side)
{
    if (text.trimmed().isEmpty())
        return;
    lumbra::MacroInterpreter &in = interpreter();
    const bool outermost = !in.inRun();
    QString message;
    const Outcome outcome = in.run(text, side, &message);
    // A script started from a script that ran out of time: its caller says so.
    if (outcome != Outcome::Done && (outermost || outcome != Outcome::TimeLimit))
        report(id, static_cast<int>(outcome), message);
    if (!outermost)
        return;
    m_stackHeight = in.stackHeight();
    if (outcome == Outcome::MemoryLimit)
        freeMemoryHeldByGlobals();
}

lumbra::MacroInterpreter &Macro::interpreter()
{
    const lumbra::MacroSettings s = settings();
    if (m_interp && !m_interp->inRun()) {
        if (m_interp->sandboxed() != s.sandbox) {
            zlog_info(g_zlog, "script interpreter restarted: sandbox %s", s.sandbox ? "on" : "off");
            m_interp.reset();
        } else {
            m_interp->setLimits(s.timeLimitMs, s.memoryLimitKb);
        }
    }
    if (!m_interp)
        m_interp = std::make_unique<lumbra::MacroInterpreter>(s, &m_abort);
    return *m_interp;
}

// A script that ran out of memory has let go of what it held in locals; what
// its globals keep would make every later run fail, so the interpreter
// starts afresh then.
void Macro::freeMemoryHeldByGlobals()
{
    m_interp->collect();
    const qint64 used = m_interp->memoryUsed();
    if (used <= m_interp->memoryLimit() * 3 / 4)
        return;
    zlog_error(g_zlog, "script interpreter restarted: its globals held %lld KB of %lld KB",
               static_cast<long long>(used / 1024), static_cast<long long>(m_interp->memoryLimit() / 1024));
    m_interp.reset();
}

void Macro::report(int id, int outcome, const QString &message)
{
    const QString who = id >= 0 ? QString("script %1").arg(id) : QStringLiteral("script text");
    QString line;
    switch (static_cast<Outcome>(outcome)) {
    case Outcome::TimeLimit:
        line = QString("%1 stopped: time limit of %2 ms").arg(who).arg(settings().timeLimitMs);
        break;
    case Outcome::MemoryLimit:
        line = QString("%1 stopped: memory limit of %2 KB").arg(who).arg(settings().memoryLimitKb);
        break;
    case Outcome::Unusable:
        line = QStringLiteral("The script runtime environment is abnormal.");
        break;
    default:
        line = QString("%1: %2").arg(who, message);
        break;
    }
    // A cyclic script that fails every pass would fill the log.
    if (m_reports.size() >= kMaxReports)
        m_reports.clear();
    int held = 0;
    if (!m_reports[line].allow(&held))
        return;
    if (held > 0)
        line += QString(" (%1 more since the last line)").arg(held);
    zlog_error(g_zlog, "%s", line.toLocal8Bit().constData());
}
