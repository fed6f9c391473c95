#include "plcmap.h"

#include <chrono>
#include <cmath>
#include <cstring>
#include <string>

namespace plcsim {

namespace {

const int kCounter = 0;
const int kSine = 1;
const int kFloat = 2;
const int kClock = 4;
const int kText = 11;
const int kTextChars = 16;
const int kAlarmWord = 20;
const int kAlarmCoil = 0;
const int kBulk = 100;
const uint16_t kAlarmOn = 100;
const double kPi = 3.14159265358979323846;

uint16_t bcd(int value)
{
    uint16_t out = 0;
    for (int shift = 0; shift < 16 && value > 0; shift += 4, value /= 10)
        out |= static_cast<uint16_t>((value % 10) << shift);
    return out;
}

std::string twoDigits(int v)
{
    return {static_cast<char>('0' + v / 10 % 10), static_cast<char>('0' + v % 10)};
}

}  // namespace

Moment Moment::now(double sinceStart)
{
    using namespace std::chrono;
    Moment m;
    const auto wall = system_clock::now();
    m.unixSeconds = duration<double>(wall.time_since_epoch()).count();
    const std::time_t secs = system_clock::to_time_t(wall);
    localtime_r(&secs, &m.local);
    m.sinceStart = sinceStart;
    return m;
}

PlcMap::PlcMap(int size, int alarmPeriodS)
    : m_map(modbus_mapping_new(size, size, size, size)), m_size(size), m_alarmPeriodS(alarmPeriodS)
{
}

void PlcMap::setWord(int addr, uint16_t v)
{
    if (addr < m_size)
        m_map->tab_registers[addr] = v;
}

void PlcMap::update(const Moment &m)
{
    setWord(kCounter, m_counter);
    writeWave(m);
    writeClock(m.local);
    writeAlarm(m.sinceStart);
    writeBulk();
    mirror();
    ++m_counter;
}

void PlcMap::writeWave(const Moment &m)
{
    const double sine = std::round(1000.0 * std::sin(2 * kPi * std::fmod(m.unixSeconds, 60.0) / 60.0));
    setWord(kSine, static_cast<uint16_t>(static_cast<int16_t>(sine)));
    const float temperature =
        static_cast<float>(20.0 + 5.0 * std::sin(2 * kPi * std::fmod(m.unixSeconds, 120.0) / 120.0));
    uint32_t bits = 0;
    std::memcpy(&bits, &temperature, sizeof bits);
    setWord(kFloat, static_cast<uint16_t>(bits >> 16));
    setWord(kFloat + 1, static_cast<uint16_t>(bits & 0xFFFF));
}

void PlcMap::writeClock(const std::tm &t)
{
    const int fields[] = {t.tm_sec, t.tm_min, t.tm_hour, t.tm_mday, t.tm_mon + 1, t.tm_year + 1900, t.tm_wday};
    for (int i = 0; i < 7; ++i)
        setWord(kClock + i, bcd(fields[i]));
    // High byte first, the way Modbus devices store text.
    const std::string text =
        "PLCSIM " + twoDigits(t.tm_hour) + ":" + twoDigits(t.tm_min) + ":" + twoDigits(t.tm_sec) + " ";
    for (int i = 0; i < kTextChars / 2; ++i) {
        const auto hi = static_cast<uint8_t>(text[2 * i]);
        const auto lo = static_cast<uint8_t>(text[2 * i + 1]);
        setWord(kText + i, static_cast<uint16_t>(hi << 8 | lo));
    }
}

void PlcMap::writeAlarm(double sinceStart)
{
    const bool on = static_cast<long>(sinceStart / m_alarmPeriodS) % 2 == 1;
    setWord(kAlarmWord, on ? kAlarmOn : 0);
    m_map->tab_bits[kAlarmCoil] = on ? 1 : 0;
}

void PlcMap::writeBulk()
{
    for (int a = kBulk; a < m_size; ++a) {
        const auto v = static_cast<uint16_t>(a + m_counter);
        m_map->tab_registers[a] = v;
        m_map->tab_bits[a] = v & 1;
    }
}

void PlcMap::mirror()
{
    std::memcpy(m_map->tab_input_registers, m_map->tab_registers, sizeof(uint16_t) * m_size);
    std::memcpy(m_map->tab_input_bits, m_map->tab_bits, m_size);
}

}  // namespace plcsim
