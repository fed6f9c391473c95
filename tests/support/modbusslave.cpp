#include "modbusslave.h"

#include <modbus.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

namespace lumbra::test {

std::unique_ptr<ModbusSlave> ModbusSlave::make(const QString &device, int baud, int port, int unit)
{
    std::unique_ptr<ModbusSlave> s(new ModbusSlave);
    s->m_device = device;
    s->m_baud = baud;
    s->m_port = port;
    s->m_unit = unit;
    s->m_map = modbus_mapping_new(kRegisters, kRegisters, kRegisters, kRegisters);
    if (!s->start())
        return nullptr;
    return s;
}

std::unique_ptr<ModbusSlave> ModbusSlave::rtu(const QString &device, int baud, int unit)
{
    return make(device, baud, 0, unit);
}

std::unique_ptr<ModbusSlave> ModbusSlave::tcp(int port, int unit)
{
    return make(QString(), 0, port, unit);
}

ModbusSlave::~ModbusSlave()
{
    stop();
    modbus_mapping_free(m_map);
}

bool ModbusSlave::open()
{
    if (m_port > 0) {
        m_ctx = modbus_new_tcp("127.0.0.1", m_port);
        if (!m_ctx)
            return false;
        m_listenFd = modbus_tcp_listen(m_ctx, 1);
        return m_listenFd >= 0;
    }
    m_ctx = modbus_new_rtu(m_device.toLocal8Bit().constData(), m_baud, 'N', 8, 1);
    if (!m_ctx)
        return false;
    modbus_set_slave(m_ctx, m_unit);
    return modbus_connect(m_ctx) == 0;
}

bool ModbusSlave::start()
{
    if (m_running)
        return true;
    if (!open()) {
        stop();
        return false;
    }
    // Short waits, so that stop() is noticed at once.
    modbus_set_indication_timeout(m_ctx, 0, 100000);
    m_running = true;
    m_thread = std::thread(m_port > 0 ? &ModbusSlave::serveTcp : &ModbusSlave::serve, this);
    return true;
}

void ModbusSlave::stop()
{
    m_running = false;
    if (m_thread.joinable())
        m_thread.join();
    if (m_listenFd >= 0)
        ::close(m_listenFd);
    m_listenFd = -1;
    if (m_ctx) {
        modbus_close(m_ctx);
        modbus_free(m_ctx);
    }
    m_ctx = nullptr;
}

void ModbusSlave::serve()
{
    uint8_t req[MODBUS_RTU_MAX_ADU_LENGTH];
    while (m_running) {
        int n = modbus_receive(m_ctx, req);
        if (n > 0)  // else a time-out, a frame for another unit, or garbage
            answer(req, n);
    }
}

void ModbusSlave::serveTcp()
{
    uint8_t req[MODBUS_TCP_MAX_ADU_LENGTH];
    while (m_running) {
        fd_set fds;
        FD_ZERO(&fds);
        FD_SET(m_listenFd, &fds);
        timeval tv{0, 100000};
        if (select(m_listenFd + 1, &fds, nullptr, nullptr, &tv) <= 0)
            continue;
        int client = modbus_tcp_accept(m_ctx, &m_listenFd);
        if (client < 0)
            continue;
        while (m_running) {
            int n = modbus_receive(m_ctx, req);
            if (n == -1 && errno != ETIMEDOUT)
                break;  // the master hung up
            if (n > 0)
                answer(req, n);
        }
        // The context still holds the client's number; left there, stop()
        // would close it again, by then perhaps another thread's socket.
        modbus_set_socket(m_ctx, -1);
        ::close(client);
    }
}

void ModbusSlave::answer(const uint8_t *req, int len)
{
    if (m_silent)
        return;
    std::lock_guard<std::mutex> lock(m_mutex);
    modbus_reply(m_ctx, req, len, m_map);
    ++m_requests;
}

void ModbusSlave::setHolding(int addr, uint16_t value)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_map->tab_registers[addr] = value;
}

uint16_t ModbusSlave::holding(int addr)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_map->tab_registers[addr];
}

void ModbusSlave::setInputRegister(int addr, uint16_t value)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_map->tab_input_registers[addr] = value;
}

void ModbusSlave::setCoil(int addr, bool value)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_map->tab_bits[addr] = value ? 1 : 0;
}

bool ModbusSlave::coil(int addr)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_map->tab_bits[addr] != 0;
}

void ModbusSlave::setDiscreteInput(int addr, bool value)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_map->tab_input_bits[addr] = value ? 1 : 0;
}

}  // namespace lumbra::test
