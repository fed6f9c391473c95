// The HTTP side (cpp-httplib): the JSON API, the server-sent events stream
// and the console's static files. It listens on loopback unless told
// otherwise; then every write needs the token ("Authorization: Bearer ...").
#pragma once

#include "commands.h"
#include "configservice.h"
#include "eventhub.h"
#include "storereader.h"

#include <functional>
#include <memory>
#include <thread>

namespace httplib {
class Server;
struct Request;
struct Response;
}  // namespace httplib

namespace platform {

struct HttpSettings {
    QString host;
    int port = 8080;
    QString staticDir;  // empty or missing: no console, the API only
    QString token;      // empty: writes are open (loopback only)
};

class HttpApi {
public:
    HttpApi(const HttpSettings &settings, StoreReader &store, Commands &commands, ConfigService &config,
            EventHub &events, std::function<QByteArray()> status);
    ~HttpApi();
    // Binds and starts serving; false with *why when the address is taken.
    bool start(QString *why);
    void stop();
    int port() const { return m_port; }

private:
    void routes();
    void routeReads();
    void routeWrites();
    void routeEvents();
    bool authorized(const httplib::Request &req) const;
    // The gateway named in the path, or false with the error set on res.
    bool gatewayOf(const httplib::Request &req, httplib::Response &res, QString *serial, GatewayRef *ref);

    HttpSettings m_settings;
    StoreReader &m_store;
    Commands &m_commands;
    ConfigService &m_config;
    EventHub &m_events;
    std::function<QByteArray()> m_status;
    std::unique_ptr<httplib::Server> m_server;
    std::thread m_thread;
    int m_port = 0;
};

}  // namespace platform
