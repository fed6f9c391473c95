#include "httpapi.h"

#include "platformlog.h"
#include "topic.h"

#include <httplib.h>

#include <QDateTime>
#include <QDir>

#include <climits>

namespace platform {
namespace {

const char kJson[] = "application/json";
const size_t kMaxBody = 1 << 20;
const int kEventWaitMs = 1000;
// Short on purpose: cpp-httplib notices a closed stream only when a write to
// it fails, and until then it holds one of the 32 stream places.
const int kKeepAliveS = 2;

void reply(httplib::Response &res, const Reply &r)
{
    res.status = r.status;
    res.set_content(r.json.constData(), static_cast<size_t>(r.json.size()), kJson);
}

void ok(httplib::Response &res, const QByteArray &json)
{
    reply(res, {200, json});
}

// A query parameter as a number in [lo, hi]; def when absent, false when
// present and not such a number.
bool numberParam(const httplib::Request &req, const char *name, qint64 lo, qint64 hi, qint64 def, qint64 *out)
{
    *out = def;
    if (!req.has_param(name))
        return true;
    bool good = false;
    const qint64 n = QString::fromStdString(req.get_param_value(name)).toLongLong(&good);
    if (!good || n < lo || n > hi)
        return false;
    *out = n;
    return true;
}

bool sameText(const std::string &a, const std::string &b)
{
    // Not telling by its timing how much of a guessed token was right.
    if (a.size() != b.size())
        return false;
    unsigned char diff = 0;
    for (size_t i = 0; i < a.size(); ++i)
        diff |= static_cast<unsigned char>(a[i] ^ b[i]);
    return diff == 0;
}

}  // namespace

HttpApi::HttpApi(const HttpSettings &settings, StoreReader &store, Commands &commands, ConfigService &config,
                 EventHub &events, std::function<QByteArray()> status)
    : m_settings(settings), m_store(store), m_commands(commands), m_config(config), m_events(events),
      m_status(std::move(status)), m_server(std::make_unique<httplib::Server>())
{
}

HttpApi::~HttpApi()
{
    stop();
}

bool HttpApi::start(QString *why)
{
    // Each event stream holds a thread for as long as the page is open.
    m_server->new_task_queue = [] { return new httplib::ThreadPool(48); };
    m_server->set_payload_max_length(kMaxBody);
    // The library prefers brotli whenever a browser offers it, at a quality
    // that takes over a second for the 600 KB of 10,000 points; gzip takes
    // milliseconds. So a browser is answered in gzip.
    m_server->set_pre_routing_handler([](const httplib::Request &req, httplib::Response &) {
        auto offered = const_cast<httplib::Request &>(req).headers.equal_range("Accept-Encoding");
        for (auto it = offered.first; it != offered.second; ++it)
            it->second = it->second.find("gzip") != std::string::npos ? "gzip" : "identity";
        return httplib::Server::HandlerResponse::Unhandled;
    });
    routes();
    if (!m_settings.staticDir.isEmpty()) {
        if (m_server->set_mount_point("/", m_settings.staticDir.toStdString()))
            PLOG_INFO("console served from %s", QDir(m_settings.staticDir).absolutePath().toUtf8().constData());
        else
            PLOG_WARN("no console: %s is not a folder; the API is served all the same",
                      m_settings.staticDir.toUtf8().constData());
    }
    const std::string host = m_settings.host.toStdString();
    if (!m_server->bind_to_port(host.c_str(), m_settings.port)) {
        *why = QString("cannot listen on %1:%2").arg(m_settings.host).arg(m_settings.port);
        return false;
    }
    m_port = m_settings.port;
    m_thread = std::thread([this] { m_server->listen_after_bind(); });
    PLOG_INFO("HTTP on %s:%d%s", host.c_str(), m_port,
              m_settings.token.isEmpty() ? "" : " (writes need the token)");
    return true;
}

void HttpApi::stop()
{
    m_events.closeAll();
    if (m_thread.joinable()) {
        m_server->stop();
        m_thread.join();
    }
}

bool HttpApi::authorized(const httplib::Request &req) const
{
    if (m_settings.token.isEmpty())
        return true;
    return sameText(req.get_header_value("Authorization"), "Bearer " + m_settings.token.toStdString());
}

bool HttpApi::gatewayOf(const httplib::Request &req, httplib::Response &res, QString *serial, GatewayRef *ref)
{
    *serial = QString::fromStdString(req.matches[1]);
    if (!validSerial(*serial)) {
        reply(res, errorReply(400, "not a serial number: " + *serial));
        return false;
    }
    if (!m_store.gateway(*serial, ref)) {
        reply(res, errorReply(m_store.healthy() ? 404 : 503,
                              m_store.healthy() ? "no gateway " + *serial + " has been heard of"
                                                : "the database is not available"));
        return false;
    }
    return true;
}

void HttpApi::routes()
{
    routeReads();
    routeWrites();
    routeEvents();
    m_server->Get("/api/status", [this](const httplib::Request &, httplib::Response &res) { ok(res, m_status()); });
    auto notFound = [](const httplib::Request &req, httplib::Response &res) {
        reply(res, errorReply(404, "no such resource: " + QString::fromStdString(req.path)));
    };
    m_server->Get("/api/.*", notFound);
    m_server->Post("/api/.*", notFound);
}

void HttpApi::routeReads()
{
    m_server->Get("/api/gateways", [this](const httplib::Request &, httplib::Response &res) {
        ok(res, m_store.gateways());
    });
    m_server->Get(R"(/api/gateways/([^/]+))", [this](const httplib::Request &req, httplib::Response &res) {
        QString serial;
        GatewayRef ref;
        if (gatewayOf(req, res, &serial, &ref))
            ok(res, m_store.gatewayDetail(serial, ref));
    });
    m_server->Get(R"(/api/gateways/([^/]+)/points)", [this](const httplib::Request &req, httplib::Response &res) {
        QString serial;
        GatewayRef ref;
        if (gatewayOf(req, res, &serial, &ref))
            ok(res, m_store.points(ref, m_config.pointNames(serial)));
    });
    m_server->Get(R"(/api/gateways/([^/]+)/(alarms|edits))", [this](const httplib::Request &req,
                                                                    httplib::Response &res) {
        QString serial;
        GatewayRef ref;
        qint64 limit = 0;
        if (!numberParam(req, "limit", 1, 100000, 200, &limit))
            return reply(res, errorReply(400, "limit: a number from 1 to 100000"));
        if (gatewayOf(req, res, &serial, &ref))
            ok(res, req.matches[2] == "alarms" ? m_store.alarms(ref, int(limit)) : m_store.edits(ref, int(limit)));
    });
    m_server->Get(R"(/api/gateways/([^/]+)/history)", [this](const httplib::Request &req, httplib::Response &res) {
        QString serial;
        GatewayRef ref;
        qint64 code, from, to, limit, group, index;
        if (!numberParam(req, "code", INT_MIN, INT_MAX, LLONG_MIN, &code) ||
            !numberParam(req, "from", LLONG_MIN, LLONG_MAX, 0, &from) ||
            !numberParam(req, "to", LLONG_MIN, LLONG_MAX, LLONG_MAX, &to) ||
            !numberParam(req, "limit", 1, 1000000, 100000, &limit) ||
            !numberParam(req, "group", 0, UINT_MAX, -1, &group) || !numberParam(req, "index", 0, 100000, 0, &index) ||
            (code == LLONG_MIN && group < 0))
            return reply(res, errorReply(400, "expected code=N (or group=G&index=I), from=T, to=T, limit=N"));
        if (!gatewayOf(req, res, &serial, &ref))
            return;
        std::vector<HistoryQuery> queries;
        if (group >= 0)
            queries.push_back({quint32(group), int(index), from, to, int(limit)});
        if (code != LLONG_MIN)
            for (const auto &[g, place] : m_config.historySlots(serial, int(code)))
                queries.push_back({g, place, from, to, int(limit)});
        if (queries.empty())
            return reply(res, errorReply(404, QString("point %1 is in no history group of %2 in %3")
                                                  .arg(code)
                                                  .arg(serial, m_config.dir())));
        ok(res, m_store.history(ref, queries));
    });
}

void HttpApi::routeWrites()
{
    m_server->Post(R"(/api/gateways/([^/]+)/write)", [this](const httplib::Request &req, httplib::Response &res) {
        if (!authorized(req))
            return reply(res, errorReply(401, "writes need the token: Authorization: Bearer <token>"));
        const QString serial = QString::fromStdString(req.matches[1]);
        if (!validSerial(serial))
            return reply(res, errorReply(400, "not a serial number: " + serial));
        reply(res, m_commands.write(serial, QByteArray::fromStdString(req.body)));
    });
    m_server->Post(R"(/api/gateways/([^/]+)/edit/([^/]+))", [this](const httplib::Request &req,
                                                                  httplib::Response &res) {
        if (!authorized(req))
            return reply(res, errorReply(401, "edits need the token: Authorization: Bearer <token>"));
        const QString serial = QString::fromStdString(req.matches[1]);
        if (!validSerial(serial))
            return reply(res, errorReply(400, "not a serial number: " + serial));
        reply(res, m_commands.edit(serial, QString::fromStdString(req.matches[2]), QByteArray::fromStdString(req.body)));
    });
}

void HttpApi::routeEvents()
{
    m_server->Get("/api/events", [this](const httplib::Request &req, httplib::Response &res) {
        const QString serial = QString::fromStdString(req.get_param_value("sn"));
        if (!serial.isEmpty() && !validSerial(serial))
            return reply(res, errorReply(400, "not a serial number: " + serial));
        std::shared_ptr<Subscriber> sub = m_events.subscribe(serial);
        if (!sub)
            return reply(res, errorReply(503, "too many event streams open"));
        res.set_header("Cache-Control", "no-cache");
        auto idleMs = std::make_shared<int>(0);
        res.set_chunked_content_provider(
            "text/event-stream",
            [sub, idleMs](size_t offset, httplib::DataSink &sink) {
                std::vector<QByteArray> frames;
                // Says at once that the stream is open, before any change comes.
                if (offset == 0)
                    frames.push_back(": open\n\n");
                if (!sub->next(&frames, offset == 0 ? 0 : kEventWaitMs)) {
                    sink.done();
                    return true;
                }
                *idleMs = frames.empty() ? *idleMs + kEventWaitMs : 0;
                if (*idleMs >= kKeepAliveS * 1000) {
                    // Proxies close a stream that says nothing for long.
                    frames.push_back(": keep-alive\n\n");
                    *idleMs = 0;
                }
                for (const QByteArray &f : frames)
                    if (!sink.write(f.constData(), static_cast<size_t>(f.size())))
                        return false;
                return true;
            },
            [this, sub](bool) { m_events.unsubscribe(sub); });
    });
}

}  // namespace platform
