// Start-up of the gateway. The order below is binding: the link manager comes up
// before every service that reads device values, and the external address table
// is switched on only after every consumer has registered its addresses.
#include "IotToMqttComm/IotToMqttComm.h"
#include "IotToMqttComm/MqttMsgEvent.h"
#include "AlarmData/AlarmData.h"
#include "HistoricalData/HistoricalData.h"
#include "IotConfig/IotConfig.h"
#include "Macro/Macro.h"
#include "MqttCliManager/MqttCliManager.h"
#include "RealData/RealData.h"
#include "SpecialRegister/SpecialRegister.h"
#include "deviceInfo/deviceInfo.h"
#include "device_comm/communication.h"
#include "generalFunc/generalFunc.h"
#include "generalFunc/globals.h"
#include "generalFunc/singleinstance.h"
#include "generalFunc/boxpath.h"

#include <QCoreApplication>

#include <csignal>
#include <malloc.h>
#include <cstdlib>

namespace {

// False when another gateway runs. A lock file that cannot be used (a
// read-only /var/run, a developer without rights) falls back to counting
// processes by name, which is racy but better than two gateways.
bool holdSingleInstance()
{
    const QString path = lumbra::boxPath("/var/run/lumbra.pid");
    QString why;
    switch (lumbra::lockSingleInstance(path, &why)) {
    case lumbra::InstanceLock::Held:
        if (!why.isEmpty())
            zlog_error(g_zlog, "cannot write pid to %s: %s", path.toLocal8Bit().constData(), why.toLocal8Bit().constData());
        return true;
    case lumbra::InstanceLock::HeldByAnother:
        return false;
    case lumbra::InstanceLock::Unusable:
        break;
    }
    zlog_error(g_zlog, "cannot lock %s: %s; counting processes instead", path.toLocal8Bit().constData(),
               why.toLocal8Bit().constData());
    return unitTool::CheckProcessNum("Lumbra") <= 1;
}

}  // namespace

int main(int argc, char *argv[])
{
    // Qt's own event loop rather than GLib's: with GLib every socket
    // notifier a link thread switches on or off costs a wake-up write,
    // several for each request to a device.
    if (!qEnvironmentVariableIsSet("QT_NO_GLIB"))
        qputenv("QT_NO_GLIB", "1");
    QCoreApplication app(argc, argv);

    unitTool::my_zlog_init();
    zlog_info(g_zlog, "App %s start 编译日期：%s %s", g_IotVersion.toLocal8Bit().constData(), __DATE__,
              __TIME__);

    if (!holdSingleInstance()) {
        zlog_info(g_zlog, "App exist exit");
        exit(0);
    }
    // A peer that hangs up must cost one failed write, not the process.
    signal(SIGPIPE, SIG_IGN);

    g_zonetime = unitTool::cultimezone();
    // The bridge comes up before every service so that they can send at once.
    MqttMsgEvent::MqttDealMapInit();
    IotToMqttComm::getInstance()->init();
    communication::getInstance()->initLinks();
    SpecialRegister::getInstance()->init();
    deviceInfo::getInstance()->init();
    IotConfig::getInstance()->init();
    RealData::getInstance()->init();
    HistoricalData::getInstance()->init();
    AlarmData::getInstance()->init();
    // Loads the scripts; its run-once scripts wait on the engine's thread
    // until polling is on and every link has polled once (bounded).
    Macro::getInstance()->init();
    MqttCliManager::getInstance()->init();
    // Last: every consumer has registered its addresses by now.
    communication::getInstance()->enableExternalAddrInfo(true);
    // Parsing the configuration left the heap full of freed pieces between
    // the records that stay; hand those pages back.
    malloc_trim(0);

    return app.exec();
}
