// libmosquitto's entry points that forwarding clients use, forwarded to the
// library loaded when the first client is made; a box without brokers to
// forward to never loads it, nor the TLS libraries it brings.
#include <mosquitto.h>

#include "lazylibrary.h"

namespace {

lumbra::LazyLibrary &mosq()
{
    static lumbra::LazyLibrary lib("libmosquitto.so.1");
    return lib;
}

const int kMissing = MOSQ_ERR_NOT_SUPPORTED;

}  // namespace

extern "C" {

LUMBRA_LAZY_FORWARD(mosq, int, mosquitto_lib_init, (void), (), kMissing)
LUMBRA_LAZY_FORWARD(mosq, int, mosquitto_lib_version, (int *major, int *minor, int *revision),
                    (major, minor, revision), 0)
LUMBRA_LAZY_FORWARD(mosq, const char *, mosquitto_strerror, (int code), (code), "libmosquitto not available")
LUMBRA_LAZY_FORWARD(mosq, struct mosquitto *, mosquitto_new, (const char *id, bool clean, void *obj),
                    (id, clean, obj), nullptr)
LUMBRA_LAZY_FORWARD_VOID(mosq, mosquitto_destroy, (struct mosquitto * m), (m))
LUMBRA_LAZY_FORWARD(mosq, int, mosquitto_int_option, (struct mosquitto * m, enum mosq_opt_t option, int value),
                    (m, option, value), kMissing)
LUMBRA_LAZY_FORWARD(mosq, int, mosquitto_username_pw_set, (struct mosquitto * m, const char *user, const char *pw),
                    (m, user, pw), kMissing)
LUMBRA_LAZY_FORWARD(mosq, int, mosquitto_will_set,
                    (struct mosquitto * m, const char *topic, int len, const void *payload, int qos, bool retain),
                    (m, topic, len, payload, qos, retain), kMissing)
LUMBRA_LAZY_FORWARD(mosq, int, mosquitto_will_clear, (struct mosquitto * m), (m), kMissing)
LUMBRA_LAZY_FORWARD(mosq, int, mosquitto_reconnect_delay_set,
                    (struct mosquitto * m, unsigned int delay, unsigned int max, bool exponential),
                    (m, delay, max, exponential), kMissing)
LUMBRA_LAZY_FORWARD(mosq, int, mosquitto_connect_async, (struct mosquitto * m, const char *host, int port, int keepalive),
                    (m, host, port, keepalive), kMissing)
LUMBRA_LAZY_FORWARD(mosq, int, mosquitto_disconnect, (struct mosquitto * m), (m), kMissing)
LUMBRA_LAZY_FORWARD(mosq, int, mosquitto_loop_start, (struct mosquitto * m), (m), kMissing)
LUMBRA_LAZY_FORWARD(mosq, int, mosquitto_loop_stop, (struct mosquitto * m, bool force), (m, force), kMissing)
LUMBRA_LAZY_FORWARD(mosq, int, mosquitto_publish,
                    (struct mosquitto * m, int *mid, const char *topic, int len, const void *payload, int qos,
                     bool retain),
                    (m, mid, topic, len, payload, qos, retain), kMissing)
LUMBRA_LAZY_FORWARD(mosq, int, mosquitto_subscribe, (struct mosquitto * m, int *mid, const char *sub, int qos),
                    (m, mid, sub, qos), kMissing)
LUMBRA_LAZY_FORWARD(mosq, int, mosquitto_unsubscribe, (struct mosquitto * m, int *mid, const char *sub),
                    (m, mid, sub), kMissing)
LUMBRA_LAZY_FORWARD(mosq, int, mosquitto_topic_matches_sub, (const char *sub, const char *topic, bool *result),
                    (sub, topic, result), kMissing)
LUMBRA_LAZY_FORWARD(mosq, int, mosquitto_pub_topic_check2, (const char *topic, size_t len), (topic, len), kMissing)
LUMBRA_LAZY_FORWARD(mosq, int, mosquitto_sub_topic_check2, (const char *topic, size_t len), (topic, len), kMissing)
LUMBRA_LAZY_FORWARD(mosq, const char *, mosquitto_connack_string, (int code), (code), "libmosquitto not available")
LUMBRA_LAZY_FORWARD(mosq, const char *, mosquitto_reason_string, (int code), (code), "libmosquitto not available")
LUMBRA_LAZY_FORWARD(mosq, int, mosquitto_loop, (struct mosquitto * m, int timeout, int max), (m, timeout, max),
                    kMissing)
LUMBRA_LAZY_FORWARD(mosq, int, mosquitto_threaded_set, (struct mosquitto * m, bool threaded), (m, threaded), kMissing)
LUMBRA_LAZY_FORWARD(mosq, int, mosquitto_max_inflight_messages_set, (struct mosquitto * m, unsigned int max),
                    (m, max), kMissing)
LUMBRA_LAZY_FORWARD(mosq, int, mosquitto_tls_insecure_set, (struct mosquitto * m, bool value), (m, value), kMissing)
LUMBRA_LAZY_FORWARD(mosq, int, mosquitto_tls_set,
                    (struct mosquitto * m, const char *cafile, const char *capath, const char *certfile,
                     const char *keyfile, int (*pw)(char *, int, int, void *)),
                    (m, cafile, capath, certfile, keyfile, pw), kMissing)
LUMBRA_LAZY_FORWARD(mosq, void *, mosquitto_userdata, (struct mosquitto * m), (m), nullptr)

using ConnectCB = void (*)(struct mosquitto *, void *, int);
using MessageCB = void (*)(struct mosquitto *, void *, const struct mosquitto_message *);
using LogCB = void (*)(struct mosquitto *, void *, int, const char *);
using SubscribeCB = void (*)(struct mosquitto *, void *, int, int, const int *);
using PublishV5CB = void (*)(struct mosquitto *, void *, int, int, const mosquitto_property *);

LUMBRA_LAZY_FORWARD_VOID(mosq, mosquitto_connect_callback_set, (struct mosquitto * m, ConnectCB cb), (m, cb))
LUMBRA_LAZY_FORWARD_VOID(mosq, mosquitto_disconnect_callback_set, (struct mosquitto * m, ConnectCB cb), (m, cb))
LUMBRA_LAZY_FORWARD_VOID(mosq, mosquitto_publish_callback_set, (struct mosquitto * m, ConnectCB cb), (m, cb))
LUMBRA_LAZY_FORWARD_VOID(mosq, mosquitto_message_callback_set, (struct mosquitto * m, MessageCB cb), (m, cb))
LUMBRA_LAZY_FORWARD_VOID(mosq, mosquitto_log_callback_set, (struct mosquitto * m, LogCB cb), (m, cb))
LUMBRA_LAZY_FORWARD_VOID(mosq, mosquitto_subscribe_callback_set, (struct mosquitto * m, SubscribeCB cb), (m, cb))
LUMBRA_LAZY_FORWARD_VOID(mosq, mosquitto_publish_v5_callback_set, (struct mosquitto * m, PublishV5CB cb), (m, cb))

}  // extern "C"
