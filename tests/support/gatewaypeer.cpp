#include "gatewaypeer.h"

#include <QElapsedTimer>

namespace lumbra::test {

QJsonObject GatewayPeer::receiveTopic(const QString &topic, int timeoutMs)
{
    QElapsedTimer t;
    t.start();
    for (int left = timeoutMs; left > 0; left = timeoutMs - static_cast<int>(t.elapsed())) {
        const QJsonObject envelope = receiveEnvelope(left);
        if (envelope.isEmpty() || envelope.value("topic").toString() == topic)
            return envelope;
    }
    return QJsonObject();
}

}  // namespace lumbra::test
