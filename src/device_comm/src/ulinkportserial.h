// A link's serial line: RS-232, RS-422 or RS-485 on the board's "/dev/ttyO<n>".
#pragma once

#include "ulinkport.h"

#include "device_comm/serialport/posix_qextserialport.h"

#include <QElapsedTimer>
#include <QMutex>
#include <QString>
#include <memory>

// What a serial set-up text asks for.
struct SerialSetup {
    int ttyNumber = -1;
    PortSettings settings;
    int mode = LINE_RS232;
};

class ULinkPortSerial : public ULinkPort {
    Q_OBJECT
public:
    explicit ULinkPortSerial(PortType type = PORT_SERIAL_MASTER, QObject *parent = nullptr);
    ~ULinkPortSerial() override;

    // text is "<ttyO number>-<baud>-<data bits>-<stop bits>-<parity>[-<mode>]"; see parseSetupText.
    // Calling it again on an open port reopens the line with the new text.
    bool setup(const std::string &text) override;
    // Waits up to timeoutMs for the first byte, then appends until the line
    // falls silent for frameGapMs(); a talker that never pauses is cut after
    // the longer of timeoutMs and 1 s. With reply pieces on, it returns with
    // what has arrived instead of waiting for the silence. Bytes appended, 0
    // when none came, negative when the line failed or hung up.
    int Recv(QByteArray &buffer, int timeoutMs) override;
    // Writes every byte; unless the kernel turns the RS-485 driver around by
    // itself, returns only once the bytes have left the line. With reply
    // pieces on, it first keeps the line silent for 3.5 characters after the
    // last byte received, which ends a frame for every station.
    int Send(const char *data, int len) override;
    void setReplyPieces(bool pieces) override;
    int Reset() override;
    // 1 while the device is open.
    int commStatus() override;
    void flush_clear() override;
    void shutdown() override;

    // One read of what is there: bytes read, 0 when none, negative on failure.
    int Recv(char *data, int maxLen);
    // Reads while bytes keep coming (10 ms apart at most) until len bytes are in.
    int Recv_NoTimeOut(char *data, int len);

    // LINE_RS232, LINE_RS422 or LINE_RS485.
    int lineMode() const;
    // True when the kernel turns the RS-485 driver around by itself.
    bool useNew485() const;

    // The ttyO number is the device number the link thread mapped the link's
    // COM number to. The parts are split at "-", empty parts dropped. Parity
    // is "NONE", "EVEN" or "ODD" in any case; anything else is NONE with a
    // warning. The optional mode is 422 (RS-422), 485 or its alias 3
    // (RS-485); anything else, or none, means RS-232. Baud rate,
    // data and stop bits must be numbers; the serial layer replaces values the
    // line cannot do. False, with a log line, for texts that cannot be read.
    static bool parseSetupText(const std::string &text, SerialSetup *out);
    // True on a VELOR board's COM3 ("/dev/ttyO3", unprefixed): it is wired
    // only as RS-485 and its UART driver does not turn the transceiver
    // around, so that port always runs RS-485 with the direction driven
    // through RTS by Send, whatever the set-up text says.
    static bool isVELOR_COM3(const QString &device);
    // The silence that ends a frame at these settings.
    static int frameGapMs(const PortSettings &settings);

private:
    bool openDevice();
    bool ready() const;
    int gatherFrame(QByteArray &buffer, int timeoutMs);

    mutable QMutex m_mutex;
    SerialSetup m_setup;
    QString m_device;
    bool m_velorCom3 = false;
    bool m_useNew485 = false;
    bool m_rtsDirection = false;
    // Used only through direct calls, never through signals, so it needs no
    // thread affinity of its own and may be called from any thread holding m_mutex.
    std::unique_ptr<Posix_QextSerialPort> m_serial;
    mutable bool m_closedReported = false;
    bool m_pieces = false;
    QElapsedTimer m_lastReceived;  // since the last byte came in
};
