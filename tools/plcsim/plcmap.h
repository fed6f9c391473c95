// The simulated PLC's memory: four areas of the same size and the live
// values written into them on every update.
#pragma once

#include <modbus.h>

#include <cstdint>
#include <ctime>
#include <memory>

namespace plcsim {

// The times one update is computed from.
struct Moment {
    double unixSeconds = 0;    // wall clock, with fractions
    std::tm local{};           // the same instant in local time
    double sinceStart = 0;     // monotonic seconds since the simulator started

    static Moment now(double sinceStart);
};

class PlcMap {
public:
    PlcMap(int size, int alarmPeriodS);
    bool ok() const { return m_map != nullptr; }
    modbus_mapping_t *raw() { return m_map.get(); }

    void update(const Moment &m);
    // Input registers and discrete inputs follow the holding registers and
    // coils, masters' writes included.
    void mirror();

private:
    struct Free {
        void operator()(modbus_mapping_t *m) const { modbus_mapping_free(m); }
    };

    void setWord(int addr, uint16_t v);
    void writeWave(const Moment &m);
    void writeClock(const std::tm &t);
    void writeAlarm(double sinceStart);
    void writeBulk();

    std::unique_ptr<modbus_mapping_t, Free> m_map;
    int m_size;
    int m_alarmPeriodS;
    uint16_t m_counter = 0;
};

}  // namespace plcsim
