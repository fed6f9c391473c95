#include "IotConfig.h"

#include "Outbox/Outbox.h"
#include "deviceInfo/deviceInfo.h"
#include "generalFunc/generalFunc.h"
#include "generalFunc/globals.h"
#include "generalFunc/configfile.h"
#include "generalFunc/jsonvalue.h"

#include <QDebug>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>

namespace {

struct Kind {
    const char *file;
    const char *request;
};

const Kind kKinds[6] = {
    {"./iotRunTime/LinkConfiguration.json", "/DevSend/DevConnInfoReq"},
    {"./iotRunTime/RealTimeConfiguration.json", "/DevSend/RTDConfigReq"},
    {"./iotRunTime/HistoryConfiguration.json", "/DevSend/HisDataConfigReq"},
    {"./iotRunTime/AlarmConfiguration.json", "/DevSend/AlarmConfigReq"},
    {"./iotRunTime/ScriptConfiguration.json", "/DevSend/ScriptConfigReq"},
    {"./iotRunTime/ServerCfg.json", "/DevSend/MqttServerConfigReq"},
};

bool validKind(int kind) { return kind >= 0 && kind < 6; }

QByteArray local8(const QString &s) { return s.toLocal8Bit(); }

}  // namespace

IotConfig *IotConfig::getInstance()
{
    static IotConfig instance;
    return &instance;
}

IotConfig::~IotConfig()
{
    stop();
}

const char *IotConfig::fileOf(int kind) { return validKind(kind) ? kKinds[kind].file : ""; }

QString IotConfig::storedTime(int kind) const
{
    QMutexLocker lock(&m_timesLock);
    return validKind(kind) ? m_times[kind] : QString();
}

void IotConfig::readStoredTimes()
{
    for (int kind = 0; kind < 6; ++kind) {
        // Item by item: the real-time file alone can hold ten thousand points.
        QJsonObject root;
        if (!lumbra::readConfigItems(kKinds[kind].file, {nullptr, nullptr, nullptr}, &root, [](const QJsonValue &) {}))
            continue;
        if (root.contains("last_updata_time")) {
            QMutexLocker lock(&m_timesLock);
            m_times[kind] = lumbra::jsonText(root.value("last_updata_time"));
        }
    }
    zlog_info(g_zlog, "init last_updata_time link:%s real:%s history:%s alarm:%s script:%s",
              local8(storedTime(0)).constData(), local8(storedTime(1)).constData(), local8(storedTime(2)).constData(),
              local8(storedTime(3)).constData(), local8(storedTime(4)).constData());
}

void IotConfig::init()
{
    readStoredTimes();
    start();
}

void IotConfig::stop()
{
    m_stopRequested = true;
    m_running = false;
    m_sleeper.stop();
    wait();
    m_stopRequested = false;
    m_sleeper.restart();
}

void IotConfig::ReplyCfg(const CurrentCfgReq &req, const QString &lastUpdateTime)
{
    if (validKind(req) && lastUpdateTime != "1") {
        m_repFlag |= 1u << req;
        QMutexLocker lock(&m_timesLock);
        m_times[req] = lastUpdateTime;
    }
    m_curReqType = req + 1;
    m_replied = true;
    m_sleeper.wake();
    qDebug() << "ReplyCfg" << "m_curReqType:" << m_curReqType.load();
}

// Sleeps ms, less when a reply comes; false when the thread is told to end
// meanwhile.
bool IotConfig::waitFor(int ms)
{
    return m_sleeper.sleep(ms) && !m_stopRequested;
}

// Queued until the agent takes it: an agent that is not up yet gets it when
// it comes.
bool IotConfig::announce()
{
    if (Outbox::getInstance()->post("/DevSend/DevConfigReq", deviceInfo::getInstance()->DevInfoJson(), false, 0,
                                    Outbox::Ordered))
        return true;
    waitFor(3000);
    return false;
}

void IotConfig::waitForReply()
{
    for (int i = 0; i < 6 && !m_replied && !m_stopRequested; ++i)
        waitFor(500);
}

void IotConfig::run()
{
    m_curReqType = 0;
    m_repFlag = 0;
    m_running = true;
    bool finished = false;
    while (m_running && !m_stopRequested) {
        if (!Outbox::getInstance()->cloudUp()) {
            waitFor(3000);
            continue;
        }
        if (!m_announced) {
            m_announced = announce();
            continue;
        }
        const int kind = m_curReqType;
        if (kind > 5) {
            finished = true;
            break;
        }
        const QString payload = QString(R"({"sn_code":"%1","last_updata_time":"%2"})")
                                    .arg(deviceInfo::getInstance()->sn(), storedTime(kind));
        // Cleared before sending: a reply quicker than this thread must count.
        m_replied = false;
        Outbox::getInstance()->post(kKinds[kind].request, payload, false, 0, Outbox::Ordered);
        if (!m_running)
            break;
        waitForReply();
    }
    if (finished)
        finish();
    m_running = false;
}

void IotConfig::finish()
{
    const unsigned flags = m_repFlag;
    zlog_info(g_zlog, "m_curReqType:%d recv Config finish value:%hu", m_curReqType.load(),
              static_cast<unsigned short>(flags));
    m_replied = false;
    zlog_info(g_zlog,
              "new last_updata_time link:%s real:%s history:%s alarm:%s script:%s mqttDataforward:%s repFlag:%d",
              local8(storedTime(0)).constData(), local8(storedTime(1)).constData(), local8(storedTime(2)).constData(),
              local8(storedTime(3)).constData(), local8(storedTime(4)).constData(), local8(storedTime(5)).constData(),
              static_cast<int>(flags));
    if (flags != 0) {
        zlog_info(g_zlog, "exit restart app");
        Outbox::getInstance()->postRaw(QString(R"({"topic":"%1"})").arg("restartLumbra").toUtf8());
        exit(0);
    }
}
