#include "AlarmData.h"

// Nothing forwards alarm events yet. The MQTT forwarding manager
// (MqttCliManager::dealMqttDataForward) takes this hook over once it exists;
// it runs on the alarm thread with the alarm list locked, so it must not call
// back into AlarmData.
void forwardAlarmEvent(int, int, const QString &)
{
}
