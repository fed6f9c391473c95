// Test peers for the Modbus driver: the plug-in loaded with dlopen, a
// libmodbus slave over a socat pty pair or loopback TCP, and the master end of
// the line doing what the link thread does. Only one test file includes it.
#pragma once

#include <lumbra/driver.h>

#include <arpa/inet.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <modbus.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace modbus_test {

using Bytes = std::vector<uint8_t>;

constexpr int kReplyTimeoutMs = 300;
constexpr int kSilenceMs = 20;

inline bool waitReadable(int fd, int timeoutMs)
{
    pollfd p{fd, POLLIN, 0};
    return poll(&p, 1, timeoutMs) > 0 && (p.revents & (POLLIN | POLLHUP));
}

class TempDir {
public:
    TempDir()
    {
        std::string tmpl = (std::filesystem::temp_directory_path() / "lumbra-modbus-XXXXXX").string();
        if (mkdtemp(tmpl.data()))
            m_path = tmpl;
    }
    ~TempDir()
    {
        std::error_code ec;
        if (!m_path.empty())
            std::filesystem::remove_all(m_path, ec);
    }
    const std::string &path() const { return m_path; }

private:
    std::string m_path;
};

// One dlopen'ed copy of a driver file.
class Driver {
public:
    explicit Driver(const std::string &path) : m_handle(dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL)) {}
    ~Driver()
    {
        if (m_handle)
            dlclose(m_handle);
    }
    bool loaded() const { return m_handle != nullptr; }

    int init(int linkId, int retries)
    {
        LUMBRA_LINK_INFO info{};
        info.abi_version = LUMBRA_DRIVER_ABI_VERSION;
        info.link_id = linkId;
        info.plc_id = 1;
        info.retry_times = retries;
        int size = sizeof info;
        return initProperty(reinterpret_cast<unsigned char *>(&info), nullptr, nullptr, &size, nullptr, nullptr);
    }

private:
    template <typename T>
    T sym(const char *name) const
    {
        return m_handle ? reinterpret_cast<T>(dlsym(m_handle, name)) : nullptr;
    }
    void *m_handle;

public:
    const intf_initProperty_t initProperty = sym<intf_initProperty_t>("intf_initProperty");
    const intf_SetDriverPropertyPage_t setProperty = sym<intf_SetDriverPropertyPage_t>("intf_SetDriverPropertyPage");
    const intf_checkAddrValidity_t checkAddr = sym<intf_checkAddrValidity_t>("intf_checkAddrValidity");
    const intf_addrMerge_t merge = sym<intf_addrMerge_t>("intf_addrMerge");
    const intf_getSendFrame_t getSendFrame = sym<intf_getSendFrame_t>("intf_getSendFrame");
    const intf_dealRcvFrame_t dealRcvFrame = sym<intf_dealRcvFrame_t>("intf_dealRcvFrame");
    const intf_getData_t getData = sym<intf_getData_t>("intf_getData");
    const intf_setData_t setData = sym<intf_setData_t>("intf_setData");
    const intf_setAddrValueChangeCallBack_t setCallback =
        sym<intf_setAddrValueChangeCallBack_t>("intf_setAddrValueChangeCallBack");
    const inft_setDisconnect_t setDisconnect = sym<inft_setDisconnect_t>("inft_setDisconnect");
};

inline KEY_ADDRESS key(const char *reg, const char *addr, int station, int len = 1)
{
    KEY_ADDRESS k{};
    std::snprintf(k.reg, sizeof k.reg, "%s", reg);
    std::snprintf(k.addr, sizeof k.addr, "%s", addr);
    k.station = station;
    k.index = -1;
    k.len = len;
    return k;
}

inline uint16_t crc16(const uint8_t *data, size_t len)
{
    uint16_t crc = 0xFFFF;
    for (size_t i = 0; i < len; ++i) {
        crc ^= data[i];
        for (int b = 0; b < 8; ++b)
            crc = (crc & 1) ? (crc >> 1) ^ 0xA001 : crc >> 1;
    }
    return crc;
}

// A socat pty pair; only the socat it started is ever stopped, by its pid.
class PtyPair {
public:
    explicit PtyPair(const std::string &dir) : master(dir + "/master"), slave(dir + "/slave")
    {
        std::string a = "pty,raw,echo=0,link=" + master, b = "pty,raw,echo=0,link=" + slave;
        char *argv[] = {const_cast<char *>("socat"), a.data(), b.data(), nullptr};
        posix_spawn_file_actions_t fa;
        posix_spawn_file_actions_init(&fa);
        posix_spawn_file_actions_addopen(&fa, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
        if (posix_spawnp(&m_pid, "socat", &fa, nullptr, argv, environ) != 0)
            m_pid = -1;
        posix_spawn_file_actions_destroy(&fa);
        for (int i = 0; m_pid > 0 && i < 250 && !ok(); ++i)
            usleep(20000);
    }
    ~PtyPair()
    {
        if (m_pid <= 0)
            return;
        kill(m_pid, SIGTERM);
        for (int i = 0; i < 100; ++i, usleep(20000))
            if (waitpid(m_pid, nullptr, WNOHANG) == m_pid)
                return;
        kill(m_pid, SIGKILL);
        waitpid(m_pid, nullptr, 0);
    }
    bool ok() const { return std::filesystem::exists(master) && std::filesystem::exists(slave); }

    const std::string master, slave;

private:
    pid_t m_pid = -1;
};

// A libmodbus slave serving one mapping from its own thread.
class Slave {
public:
    static std::unique_ptr<Slave> rtu(const std::string &device, int station)
    {
        std::unique_ptr<Slave> s(new Slave(modbus_new_rtu(device.c_str(), 115200, 'N', 8, 1)));
        s->m_ok = s->m_ctx && modbus_set_slave(s->m_ctx, station) == 0 && modbus_connect(s->m_ctx) == 0 && s->start();
        return s;
    }
    static std::unique_ptr<Slave> tcp()
    {
        std::unique_ptr<Slave> s(new Slave(modbus_new_tcp("127.0.0.1", 0)));
        s->m_listen = s->m_ctx ? modbus_tcp_listen(s->m_ctx, 1) : -1;
        sockaddr_in addr{};
        socklen_t len = sizeof addr;
        if (s->m_listen >= 0 && getsockname(s->m_listen, reinterpret_cast<sockaddr *>(&addr), &len) == 0)
            s->m_port = ntohs(addr.sin_port);
        s->m_ok = s->m_port > 0 && s->start();
        return s;
    }
    ~Slave()
    {
        m_stop = true;
        if (m_thread.joinable())
            m_thread.join();
        for (int fd : {m_client, m_listen})
            if (fd >= 0)
                close(fd);
        if (m_ctx) {
            modbus_close(m_ctx);
            modbus_free(m_ctx);
        }
        if (m_map)
            modbus_mapping_free(m_map);
    }
    bool ok() const { return m_ok; }
    int port() const { return m_port; }
    // Requests to `unit` (every unit when -1) go unanswered, as to a dead device.
    void setSilent(bool silent, int unit = -1)
    {
        m_silentUnit = unit;
        m_silent = silent;
    }
    void edit(const std::function<void(modbus_mapping_t &)> &fn)
    {
        std::lock_guard<std::mutex> lock(m_mapLock);
        fn(*m_map);
    }

private:
    explicit Slave(modbus_t *ctx) : m_ctx(ctx) {}
    bool start()
    {
        m_map = modbus_mapping_new(3000, 100, 300, 100);
        if (m_map)
            m_thread = std::thread([this] { serve(); });
        return m_map != nullptr;
    }
    void serve()
    {
        while (!m_stop) {
            int fd = m_listen < 0 ? modbus_get_socket(m_ctx) : (m_client >= 0 ? m_client : m_listen);
            if (!waitReadable(fd, 50))
                continue;
            if (fd == m_listen) {
                m_client = accept(m_listen, nullptr, nullptr);
                modbus_set_socket(m_ctx, m_client);
            } else {
                answer(fd);
            }
        }
    }
    void answer(int fd)
    {
        uint8_t query[MODBUS_TCP_MAX_ADU_LENGTH];
        int rc = modbus_receive(m_ctx, query);
        int unit = rc > 0 ? query[modbus_get_header_length(m_ctx) - 1] : -1;
        if (rc > 0 && !(m_silent && (m_silentUnit < 0 || m_silentUnit == unit))) {
            std::lock_guard<std::mutex> lock(m_mapLock);
            modbus_reply(m_ctx, query, rc, m_map);
        } else if (rc < 0 && fd == m_client) {
            close(m_client);
            m_client = -1;
        }
    }

    modbus_t *m_ctx;
    modbus_mapping_t *m_map = nullptr;
    std::mutex m_mapLock;
    int m_listen = -1, m_client = -1, m_port = 0;
    bool m_ok = false;
    std::atomic<bool> m_stop{false}, m_silent{false};
    std::atomic<int> m_silentUnit{-1};
    std::thread m_thread;
};

// The master end of the line, as the link thread's port sees it.
class Line {
public:
    static std::unique_ptr<Line> serial(const std::string &device)
    {
        std::unique_ptr<Line> line(new Line(open(device.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK)));
        termios tio{};
        if (line->ok() && tcgetattr(line->m_fd, &tio) == 0) {
            cfmakeraw(&tio);
            tcsetattr(line->m_fd, TCSANOW, &tio);
        }
        return line;
    }
    static std::unique_ptr<Line> tcp(int port)
    {
        std::unique_ptr<Line> line(new Line(socket(AF_INET, SOCK_STREAM, 0)));
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_port = htons(static_cast<uint16_t>(port));
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (line->ok() && connect(line->m_fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0) {
            close(line->m_fd);
            line->m_fd = -1;
        }
        return line;
    }
    ~Line()
    {
        if (m_fd >= 0)
            close(m_fd);
    }
    bool ok() const { return m_fd >= 0; }
    bool send(const FRAME_PRO &frame) { return write(m_fd, frame.data, static_cast<size_t>(frame.len)) == frame.len; }
    // What arrives within timeoutMs, ended by a short silence after data.
    Bytes receive(int timeoutMs)
    {
        Bytes got;
        uint8_t buf[512];
        for (int wait = timeoutMs; waitReadable(m_fd, wait); wait = kSilenceMs) {
            ssize_t n = read(m_fd, buf, sizeof buf);
            if (n <= 0)
                break;
            got.insert(got.end(), buf, buf + n);
        }
        return got;
    }

private:
    explicit Line(int fd) : m_fd(fd) {}
    int m_fd;
};

// The station text of the last reply the driver was handed.
inline std::string lastStationText;

// One master exchange as the link thread runs it: drop stale input, frame out,
// reply in (optionally tampered with), reply to the driver. Returns the
// driver's result, or 0 when it had nothing to send.
inline int exchange(Driver &d, Line &line, const std::function<void(Bytes &)> &tamper = {}, FRAME_PRO *sent = nullptr)
{
    FRAME_PRO frame{};
    if (!d.getSendFrame(&frame) || frame.len < 1 || frame.len >= LUMBRA_FRAME_SIZE)
        return 0;
    if (sent)
        *sent = frame;
    line.receive(0);
    if (!line.send(frame))
        return -1;
    Bytes reply = line.receive(kReplyTimeoutMs);
    if (tamper)
        tamper(reply);
    char text[16] = {};
    int result = d.dealRcvFrame(reply.data(), static_cast<int>(reply.size()), text, sizeof text);
    lastStationText = text;
    if (result == LUMBRA_RESULT_STATION_FAILED)
        d.setDisconnect();
    return result;
}

}  // namespace modbus_test
