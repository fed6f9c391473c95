#include "AlarmData.h"

#include "SQLiteDB/SQLiteDB.h"

// Placeholder bodies so that everything links while the service is written.
AlarmData *AlarmData::getInstance()
{
    static AlarmData instance;
    return &instance;
}
AlarmData::~AlarmData() { stop(); }
void AlarmData::init() {}
bool AlarmData::load() { return false; }
void AlarmData::stop()
{
    m_running = false;
    wait();
}
void AlarmData::run() {}
void AlarmData::MsgAck(unsigned int) {}
