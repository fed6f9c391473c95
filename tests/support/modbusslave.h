// A real Modbus slave (libmodbus) on a serial device or a loopback TCP port,
// served from its own thread, to stand in for a PLC in tests.
#pragma once

#include "fdend.h"  // freeTcpPort()

#include <QString>

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <thread>

struct _modbus;
struct _modbus_mapping_t;

namespace lumbra::test {

class ModbusSlave {
public:
    // Cells per area: more than the 2000 bits one read may ask for, so that a
    // read split at that limit is answered in full.
    static const int kRegisters = 2048;

    // Serves unit id `unit` on a serial device (8N1 at baud).
    static std::unique_ptr<ModbusSlave> rtu(const QString &device, int baud, int unit);
    // Serves unit id `unit` on 127.0.0.1:port.
    static std::unique_ptr<ModbusSlave> tcp(int port, int unit);
    ~ModbusSlave();

    bool running() const { return m_running; }
    // Stops answering and closes the line; start() serves again.
    void stop();
    bool start();

    void setHolding(int addr, uint16_t value);
    uint16_t holding(int addr);
    void setInputRegister(int addr, uint16_t value);
    void setCoil(int addr, bool value);
    bool coil(int addr);
    void setDiscreteInput(int addr, bool value);
    // While silent, requests are read but never answered, as by a dead device.
    void setSilent(bool silent) { m_silent = silent; }
    int requests() const { return m_requests; }

private:
    ModbusSlave() = default;
    static std::unique_ptr<ModbusSlave> make(const QString &device, int baud, int port, int unit);
    bool open();
    void serve();
    void serveTcp();
    void answer(const uint8_t *req, int len);

    QString m_device;
    int m_baud = 0;
    int m_port = 0;
    int m_unit = 1;
    _modbus *m_ctx = nullptr;
    int m_listenFd = -1;
    _modbus_mapping_t *m_map = nullptr;
    std::mutex m_mutex;
    std::thread m_thread;
    std::atomic<bool> m_running{false};
    std::atomic<bool> m_silent{false};
    std::atomic<int> m_requests{0};
};

}  // namespace lumbra::test
