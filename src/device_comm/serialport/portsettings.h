// Line settings of a serial port and the values the serial layer accepts.
#pragma once

#include <QString>
#include <termios.h>

enum ParityType { PAR_NONE, PAR_ODD, PAR_EVEN };
enum FlowType { FLOW_OFF, FLOW_HARDWARE, FLOW_XONXOFF };
// Electrical mode of the line, numbered as the link set-up text numbers it.
enum SerialLineMode { LINE_RS232 = -1, LINE_RS422 = 1, LINE_RS485 = 2 };

struct PortSettings {
    int baudRate = 9600;
    int dataBits = 8;
    ParityType parity = PAR_NONE;
    int stopBits = 1;
    FlowType flowControl = FLOW_OFF;

    // "9600-8-1-NONE": the order of the link set-up text.
    QString toText() const;
    // Start bit + data bits + parity bit + stop bits.
    int bitsPerChar() const;
};

const char *parityName(ParityType parity);

// Accepted baud rates are the kernel's fixed termios rates, B50 to B4000000.
// Arbitrary rates (BOTHER) are not offered: the boxes' UARTs are only
// specified at the standard ones and a slightly-off rate fails silently on
// the line. Returns B0 for anything else.
speed_t termiosSpeed(int baud);

// Raw mode with these settings on top of what the line had: no line editing,
// no character mapping, reads that return at once with what is there.
void applyToTermios(const PortSettings &settings, termios *line);

// Replaces what a line cannot do by a value that works with nearly every
// field device, one warning line each: an unknown baud rate becomes 9600,
// data bits outside 5..8 become 8, stop bits other than 1 and 2 become 1.
PortSettings sanitizePortSettings(const PortSettings &wanted, const QString &device);
