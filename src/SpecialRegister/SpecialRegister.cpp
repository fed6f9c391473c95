#include "SpecialRegister.h"

#include "device_comm/communication.h"
#include "generalFunc/boxpath.h"
#include "generalFunc/generalFunc.h"
#include "generalFunc/globals.h"

#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>

namespace {

const char kNetIni[] = "/usr/brenta/net_inf.ini";
const char kModemInfo[] = "/tmp/run/4g.info";
const char kSdCardDir[] = "/tmp/mmcdisk";
const int kClockWord = 60000;  // second, minute, hour, day, month, year, weekday
const int kSdCardBit = 60927;
const int kSignalWord = 60832;
const int kInterfaceWord = 60834;
const int kSimWord = 60836;
const int kModemEvery = 20;
const int kTickMs = 1000;
const int kSliceMs = 50;

QByteArray local8(const QString &s)
{
    return s.toLocal8Bit();
}

// 45 -> 0x45: panels show the hexadecimal digits as the decimal ones.
quint16 bcd(int value)
{
    return static_cast<quint16>(QString::number(value).toUInt(nullptr, 16));
}

void writeModemWord(int address, qint32 value)
{
    communication::getInstance()->setLocalValue(LocalRegisters::LW, address, 2,
                                                reinterpret_cast<const uchar *>(&value));
}

}  // namespace

SpecialRegister *SpecialRegister::getInstance()
{
    static SpecialRegister instance;
    return &instance;
}

// A static instance outlives main(); its thread must be gone by then.
SpecialRegister::~SpecialRegister()
{
    stop();
}

void SpecialRegister::init()
{
    readRoute();
    if (isRunning())
        return;
    m_running = true;
    start();
}

void SpecialRegister::stop()
{
    m_running = false;
    wait();
}

void SpecialRegister::readRoute()
{
    const QString path = lumbra::boxPath(kNetIni);
    if (!QFile::exists(path)) {
        zlog_info(g_zlog, "file no-exist:%s", local8(path).constData());
        return;
    }
    m_chooseId = unitTool::GetIniValue("Choose_ID", path).toInt();
    m_routeModel = unitTool::GetIniValue("RouteModel", path).toInt();
    zlog_info(g_zlog, "Choose_ID:%d", m_chooseId);
}

void SpecialRegister::run()
{
    m_tick = 0;
    QElapsedTimer clock;
    clock.start();
    while (m_running) {
        // Against a deadline, not a fixed sleep, so that the seconds shown do
        // not drift and skip; in slices, so that stop() is quick.
        const qint64 due = qint64(m_tick + 1) * kTickMs;
        while (m_running && clock.elapsed() < due)
            unitTool::delay_ms(static_cast<int>(qMin<qint64>(kSliceMs, due - clock.elapsed())));
        if (!m_running)
            break;
        tick(++m_tick);
    }
}

void SpecialRegister::tick(int counter)
{
    if (m_chooseId == 1 && counter % kModemEvery == 0)
        readSimInfo();
    dealSysTimeReg();
    SetSDdiskReg();
}

void SpecialRegister::readSimInfo()
{
    const QString path = lumbra::boxPath(kModemInfo);
    if (!QFile::exists(path)) {
        zlog_info(g_zlog, "file no-exist:%s", local8(path).constData());
        return;
    }
    // Through GetIniValue: an unquoted comma in a value (a modem name) must
    // not turn it into a list and lose it.
    const auto ini = [&path](const char *key) { return unitTool::GetIniValue(key, path); };
    m_imei = ini("IMEI").toString();
    m_modelName = ini("modle_name").toString();
    m_netState = ini("net_stat").toInt();
    m_signalStrength = ini("signalStrength").toInt();
    writeModemWord(kSignalWord, m_signalStrength);
    m_iccid = ini("QCCID").toString();
    m_simState = ini("sim_state").toInt();
    writeModemWord(kSimWord, m_simState);
    m_ifname = ini("ifname").toString();
    writeModemWord(kInterfaceWord, m_ifname.isEmpty() ? 0 : 1);
}

void SpecialRegister::dealSysTimeReg()
{
    dealSysTimeReg(QDateTime::currentDateTime());
}

void SpecialRegister::dealSysTimeReg(const QDateTime &now)
{
    const QDate d = now.date();
    const QTime t = now.time();
    const int fields[] = {t.second(), t.minute(), t.hour(), d.day(), d.month(), d.year(), d.dayOfWeek()};
    communication *comm = communication::getInstance();
    for (int i = 0; i < 7; ++i) {
        const quint16 word = bcd(fields[i]);
        comm->setCommValue("LW", "LW", kClockWord + i, -1, 1, reinterpret_cast<const uchar *>(&word), 2);
    }
}

void SpecialRegister::SetSDdiskReg()
{
    const uchar mounted = QFileInfo(lumbra::boxPath(kSdCardDir)).isDir() ? 1 : 0;
    communication::getInstance()->setCommValue("LB", "LB", kSdCardBit, -1, 1, &mounted, 1);
}
