// Every cloud command handler fed arbitrary payloads: the first byte picks
// the topic, the rest is the message text. Services run on local registers
// in a scratch working directory; the agent link is down, so nothing leaves.
// Script and forwarding-server edits only go as far as the file: running
// generated Lua would fuzz the interpreter (and could loop for ever), and
// generated servers would send the box connecting to whatever host the
// fuzzer made up. Software operations are left out for the same reason:
// they download from the address in the message.
#include "IotToMqttComm/MqttMsgEvent.h"
#include "Macro/Macro.h"
#include "MqttCliManager/MqttCliManager.h"
#include "generalFunc/globals.h"

#include <QDir>
#include <QTemporaryDir>

#include <cstddef>
#include <cstdint>
#include <cstdlib>

namespace {

void editScripts(const QString &payload)
{
    Macro::getInstance()->setConfigFile(payload);
}

void editServers(const QString &payload)
{
    MqttCliManager::getInstance()->setConfigFile(payload);
}

// Topics served through their file edit only.
const QMap<QString, void (*)(const QString &)> kFileOnly{
    {"/DevRecv/OnlineScriptSet", editScripts},
    {"/DevRecv/OnlineMqttServerSet", editServers},
};

QStringList setUp()
{
    static QTemporaryDir dir;
    QDir().mkpath(dir.path() + "/iotRunTime");
    QDir::setCurrent(dir.path());
    setenv("LUMBRA_AGENT_URL", "tcp://127.0.0.1:1", 1);
    MqttMsgEvent::MqttDealMapInit();
    QStringList topics;
    for (auto it = MqttMsgEvent::MqttDealMap.constBegin(); it != MqttMsgEvent::MqttDealMap.constEnd(); ++it)
        if (it.value() && it.key() != "/DevRecv/SoftwareOperation")
            topics << it.key();
    return topics;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const QStringList topics = setUp();
    if (size < 1 || topics.isEmpty())
        return 0;
    const QString &topic = topics.at(data[0] % topics.size());
    const QString payload = QString::fromUtf8(reinterpret_cast<const char *>(data + 1), static_cast<int>(size - 1));
    MqttMsgEvent::DealFunc func = nullptr;
    if (kFileOnly.contains(topic))
        kFileOnly.value(topic)(payload);
    else if (MqttMsgEvent::lookup(topic, &func) && func)
        func(payload);
    return 0;
}
