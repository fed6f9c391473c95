// A libmodbus master of the test's own, closed and freed with its owner.
#pragma once

#include <modbus.h>

#include <memory>

namespace lumbra::test {

struct MasterFree {
    void operator()(modbus_t *m) const
    {
        modbus_close(m);
        modbus_free(m);
    }
};
using Master = std::unique_ptr<modbus_t, MasterFree>;

// raw connected as unit, or null.
inline Master connected(modbus_t *raw, int unit, int timeoutMs = 1000)
{
    Master m(raw);
    if (!m)
        return m;
    modbus_set_slave(m.get(), unit);
    modbus_set_response_timeout(m.get(), 0, static_cast<uint32_t>(timeoutMs) * 1000);
    if (modbus_connect(m.get()) != 0)
        m.reset();
    return m;
}

inline Master tcpMaster(int port, int unit = 1, int timeoutMs = 1000)
{
    return connected(modbus_new_tcp("127.0.0.1", port), unit, timeoutMs);
}

}  // namespace lumbra::test
