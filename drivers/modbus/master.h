// The master side of one link: what to send next, what a reply means, and the
// values it brought. The gateway serialises every call that reaches it except
// disconnect(), which only raises a flag.
#pragma once

#include "cache.h"
#include "codec.h"
#include "pdu.h"
#include "plan.h"
#include "poller.h"
#include "settings.h"

#include <lumbra/driver.h>

#include <atomic>
#include <deque>
#include <vector>

namespace lumbra::modbus {

class Master {
public:
    int initProperty(const unsigned char *info, const int *size);
    int setProperty(const char *text);
    int merge(const KEY_ADDRESS *list, int count);
    int checkAddress(const char *reg, const char *addr, int *index, int station) const;
    int nextFrame(FRAME_PRO *frame);
    int onReply(const uint8_t *data, int len, char *text, int textSize);
    int getData(int station, const char *reg, int index, int count, uint8_t *data, int len) const;
    int setData(int station, const char *reg, int index, int count, const uint8_t *data, int len);
    void setCallback(lumbra_value_changed_cb cb) { m_callback = cb; }
    void disconnect() { m_disconnected = true; }

private:
    struct WriteOp {
        int station = 0;
        Target target;
        std::vector<uint16_t> cells;  // for a bit of a word: its value, then the whole new word
        bool fetched = false;
    };
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
        Bytes pdu;
    };
    struct Value {
        int station = 0;
        Target target;
        Shape shape;
    };

    int station(int requested) const { return requested < 0 ? m_link.plc_id : requested; }
    bool resolve(int station, const char *reg, int index, int count, const void *data, int len, Value *out) const;
    bool startNext();
    void startWrite();
    Bytes writePdu(const WriteOp &op) const;
    int fail();
    void finish();
    void takeReply(const uint8_t *pdu);
    void applyWrite(const WriteOp &op);
    void notify(int station, Area area, int start, int count);
    void replan();

    LUMBRA_LINK_INFO m_link{};
    int m_retries = 0;
    Settings m_settings;
    std::vector<Entry> m_entries;
    Poller m_poller;
    Cache m_cache;
    std::deque<WriteOp> m_writes;
    Exchange m_ex;
    uint16_t m_transaction = 0;
    lumbra_value_changed_cb m_callback = nullptr;
    std::atomic<bool> m_disconnected{false};
};

}  // namespace lumbra::modbus
