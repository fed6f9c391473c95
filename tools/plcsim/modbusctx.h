// A libmodbus context used only for framing: the descriptors it reads and
// writes belong to the transports, so it is freed, never closed.
#pragma once

#include <modbus.h>

#include <memory>

namespace plcsim {

struct ModbusFree {
    void operator()(modbus_t *ctx) const
    {
        modbus_set_socket(ctx, -1);
        modbus_free(ctx);
    }
};

using ModbusCtx = std::unique_ptr<modbus_t, ModbusFree>;

}  // namespace plcsim
