#include "HistoricalData.h"

#include "SQLiteDB/SQLiteDB.h"

// Placeholder bodies so that everything links while the service is written.
HistoricalData *HistoricalData::getInstance()
{
    static HistoricalData instance;
    return &instance;
}
HistoricalData::~HistoricalData() { stop(); }
void HistoricalData::init() {}
bool HistoricalData::load() { return false; }
void HistoricalData::stop()
{
    m_running = false;
    wait();
}
void HistoricalData::run() {}
void HistoricalData::AckdelHisData(unsigned int) {}
