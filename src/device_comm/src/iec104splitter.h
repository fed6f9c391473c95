// Cuts the byte stream of an IEC 60870-5-104 connection into APDUs: the
// start byte 0x68, a length octet and that many bytes. TCP hands the stream
// over in arbitrary pieces, so an APDU cut across two reads is kept until its
// rest arrives; bytes that cannot start one are dropped up to the next 0x68.
#pragma once

#include "repeatlimiter.h"

#include <QByteArray>

class Iec104Splitter {
public:
    // Length octets outside this range cannot be an APCI (four control
    // octets at least, 255 bytes per APDU at most).
    static const int kMinLength = 4;
    static const int kMaxLength = 253;

    // Adds what the connection delivered. APDUs handed out before are no
    // longer valid afterwards.
    void append(const QByteArray &bytes);
    // The next complete APDU (start byte included) into *apdu, pointing into
    // the splitter's buffer until the next append or clear; false when none
    // is complete yet.
    bool next(QByteArray *apdu);
    // Forgets everything, for a new connection.
    void clear();
    // Bytes held back waiting for the rest of an APDU.
    int pending() const { return m_buf.size() - m_pos; }

private:
    void dropGarbage(int count);
    void dropBadStart(int length);

    QByteArray m_buf;
    int m_pos = 0;  // bytes of m_buf already handed out or dropped
    RepeatLimiter m_garbageLog;
    RepeatLimiter m_lengthLog;
};
