// The master side of one link: what to send next, what a reply means, and the
// values it brought. The gateway serialises every call that reaches it except
// disconnect(), which only raises a flag.
#pragma once

#include "adu.h"
#include "cache.h"
#include "codec.h"
#include "condreads.h"
#include "linksetup.h"
#include "log.h"
#include "pdu.h"
#include "plan.h"
#include "poller.h"
#include "settings.h"
#include "writes.h"

#include <lumbra/driver.h>

#include <array>
#include <atomic>
#include <string>
#include <vector>

namespace lumbra::modbus {

class Master {
public:
    explicit Master(Framing framing) : m_framing(framing) {}
    int initProperty(const unsigned char *info, const int *size);
    int setProperty(const char *text);
    int merge(const KEY_ADDRESS *list, int count);
    int checkAddress(const char *reg, const char *addr, int *index, int station) const;
    int nextFrame(FRAME_PRO *frame);
    int onReply(const uint8_t *data, int len, char *text, int textSize);
    int getValue(int station, const char *reg, int index, int count, int kind, uint8_t *data, int len,
                 int *quality) const;
    int setValue(int station, const char *reg, int index, int count, int kind, const uint8_t *data, int len,
                 int *ticket);
    int addConditionRead(const KEY_ADDRESS *list, int count);
    int writeState(int ticket, char *text, int size) const { return m_writes.state(ticket, text, size); }
    void cancelWrite(int ticket);
    void setCallback(lumbra_value_changed_cb cb) { m_callback = cb; }
    void setLogSink(lumbra_log_cb sink) { m_log.setSink(sink); }
    void disconnect() { m_disconnected = true; }

private:
    enum class Step { Read, Fetch, Write };
    struct Exchange {
        bool active = false;
        bool awaiting = false;
        int failures = 0;
        Step step = Step::Read;
        int station = 0;
        Area area = Area::HoldingRegisters;
        int start = 0;
        int count = 0;
        int block = -1;      // index in the poll set of generation `plan`; -1 for a condition read
        bool conditionRead = false;
        unsigned plan = 0;
        Pdu pdu;
        uint16_t transaction = 0;
        int scanned = 0;     // bytes of this reply judged (and logged) so far
        int received = 0;
        int announced = 0;
    };
    struct Value {
        int station = 0;
        Target target;
        Shape shape;
    };

    int station(int requested) const { return requested < 0 ? m_link.plcId : requested; }
    Order stationOrder(int station) const;
    bool resolve(int station, const char *reg, int index, int count, int kind, const void *data, int len,
                 bool write, Value *out) const;
    bool startNext();
    void startRead(const Block &b, int index);
    void startWrite();
    Pdu writePdu(const WriteOp &op) const;
    bool broadcast() const { return m_framing == Framing::Rtu && m_ex.station == 0 && m_ex.step == Step::Write; }
    bool writeInFlight() const { return m_ex.active && m_ex.step != Step::Read; }
    void dropOutstanding();
    // master_reply.cpp
    Scan scan(const uint8_t *data, int len) const;
    void noteScan(const Scan &s);
    int noReply();
    int fail(const char *reason);
    void finishWrite(int state, const char *reason);
    void stationDown(int station);
    void onException(int code);
    void splitRefused(const Exchange &ex);
    bool splitConditionRead();
    bool cutAt(int station, Area area, int start, int count, const std::vector<int> &cuts);
    void takeReply(const uint8_t *pdu);
    void applyWrite(const WriteOp &op);
    void notify(int station, Area area, int start, int count, const Block *block);
    bool noteChange(Entry &e);
    void replan(bool sameRound = false);
    const Block *exchangeBlock() const;
    int firstNumber() const { return m_link.format.number(m_ex.start); }
    int lastNumber() const { return m_link.format.number(m_ex.start + m_ex.count - 1); }

    const Framing m_framing;
    LinkSetup m_link;
    Settings m_settings;
    Log m_log;
    std::vector<Entry> m_entries;
    Barriers m_barriers;
    Poller m_poller;
    unsigned m_plan = 0;
    Cache m_cache;
    Writes m_writes;
    Exchange m_ex;
    Exchange m_parked;  // a read put back so that a write goes first
    ConditionReads m_conditionReads;
    Block m_readBlock;              // the condition read in flight (or parked)
    std::vector<Span> m_readSpans;  // what was asked for of it
    std::vector<Span> m_dropped;
    uint16_t m_transaction = 0;
    lumbra_value_changed_cb m_callback = nullptr;
    std::atomic<bool> m_disconnected{false};
    // Reused on every poll, so that a reply costs no allocation.
    std::vector<uint16_t> m_cells;
    mutable std::vector<uint16_t> m_valueCells;
    mutable int m_orderOf = -1;  // the station m_order is for
    mutable Order m_order;
    struct Change {
        std::array<char, LUMBRA_REG_NAME_SIZE + 1> reg;  // a copy: a callback may re-merge
        int index;
    };
    std::vector<Change> m_changes;
};

}  // namespace lumbra::modbus
