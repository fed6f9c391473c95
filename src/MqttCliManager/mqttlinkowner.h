// What a broker connection reports to the client that owns it. Called on the
// connection's thread.
#pragma once

#include <QByteArray>

struct mosquitto_message;

namespace lumbra::forward {

class LinkOwner {
public:
    virtual ~LinkOwner() = default;
    // The broker accepted the connection.
    virtual void linkUp() = 0;
    // The connection or the attempt ended; nothing goes out on it any more.
    virtual void linkDown() = 0;
    // The broker acknowledged mid; reason 0x80 and above (MQTT 5) refuses
    // that one message.
    virtual void published(int mid, int reason) = 0;
    virtual void received(const mosquitto_message *message) = 0;
    // The last will for the next connection: false for none.
    virtual bool will(QByteArray *topic, QByteArray *payload) = 0;
    // True when no message waits for its acknowledgement.
    virtual bool settled() = 0;
};

}  // namespace lumbra::forward
