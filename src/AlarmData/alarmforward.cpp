#include "AlarmData.h"

#include "MqttCliManager/MqttCliManager.h"

// Runs on the alarm thread with the alarm list locked: the forwarding side
// must not call back into AlarmData.
void forwardAlarmEvent(int index, int type, const QString &value)
{
    MqttCliManager::getInstance()->dealMqttDataForward(index, type, value);
}
