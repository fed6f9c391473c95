#include "iec104splitter.h"

#include "generalFunc/globals.h"

namespace {

const char kStartByte = 0x68;

}  // namespace

void Iec104Splitter::append(const QByteArray &bytes)
{
    // Compact first, so a long-lived connection does not grow the buffer.
    m_buf.remove(0, m_pos);
    m_pos = 0;
    m_buf.append(bytes);
}

void Iec104Splitter::clear()
{
    m_buf.clear();
    m_pos = 0;
}

bool Iec104Splitter::next(QByteArray *apdu)
{
    for (;;) {
        const int start = m_buf.indexOf(kStartByte, m_pos);
        if (start < 0) {
            dropGarbage(m_buf.size() - m_pos);
            m_pos = m_buf.size();
            return false;
        }
        dropGarbage(start - m_pos);
        m_pos = start;
        if (m_buf.size() - start < 2)
            return false;
        const int length = static_cast<uint8_t>(m_buf.at(start + 1));
        if (length < kMinLength || length > kMaxLength) {
            // A 0x68 inside garbage, or a peer that lies: look for the next one.
            dropBadStart(length);
            m_pos = start + 1;
            continue;
        }
        if (m_buf.size() - start < 2 + length)
            return false;
        *apdu = QByteArray::fromRawData(m_buf.constData() + start, 2 + length);
        m_pos = start + 2 + length;
        return true;
    }
}

void Iec104Splitter::dropGarbage(int count)
{
    int held = 0;
    if (count > 0 && m_garbageLog.allow(&held))
        zlog_info(g_zlog, "%s %d Sticking package parsing error fail return; %d bytes before a start byte dropped"
                  " (%d more such since the last line)", __func__, __LINE__, count, held);
}

void Iec104Splitter::dropBadStart(int length)
{
    int held = 0;
    if (m_lengthLog.allow(&held))
        zlog_info(g_zlog, "%s %d Sticking package parsing error return; length %d impossible"
                  " (%d more such since the last line)", __func__, __LINE__, length, held);
}
