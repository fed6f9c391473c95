// Our POSIX serial layer: a raw-mode termios line as an unbuffered QIODevice,
// plus the RS-422/485 switch and modem lines of the boxes' UARTs.
#pragma once

#include "fdhandle.h"
#include "portsettings.h"

#include <QIODevice>
#include <QString>

class Posix_QextSerialPort : public QIODevice {
    Q_OBJECT
public:
    explicit Posix_QextSerialPort(const QString &device, const PortSettings &settings = PortSettings(),
                                  QObject *parent = nullptr);
    ~Posix_QextSerialPort() override;

    QString portName() const { return m_device; }
    const PortSettings &settings() const { return m_settings; }

    // Opens the device non-blocking in raw mode with the current settings.
    // False, with one log line naming the device and the reason, when it cannot.
    bool open(OpenMode mode) override;
    void close() override;
    bool isSequential() const override { return true; }
    // Bytes the kernel holds for us (FIONREAD); 0 when closed or hung up.
    qint64 bytesAvailable() const override;
    bool waitForReadyRead(int msecs) override;
    // 1 when bytes can be read, 0 after timeoutMs without any, -1 when the
    // line hung up or failed.
    int pollReadable(int timeoutMs) const;

    // Setters take effect at once on an open port; values the line cannot do
    // are replaced as sanitizePortSettings() says. False when termios refused.
    bool setSettings(const PortSettings &settings);
    bool setBaudRate(int baud);
    bool setDataBits(int bits);
    bool setParity(ParityType parity);
    bool setStopBits(int bits);
    bool setFlowControl(FlowType flow);

    // Blocks until every written byte has left the transmitter (tcdrain), so
    // that an RS-485 driver can be turned around without cutting the frame.
    bool writeWait();
    bool flushInput();
    // True when the line has modem control lines (a pty has none).
    bool hasModemControl() const;
    bool setRts(bool on);
    bool setDtr(bool on);
    int getSerFd() const { return m_fd.get(); }

    // True when the kernel driver switches the RS-485 direction by itself.
    bool supportNew485() const;
    // LINE_RS485 asks the kernel to drive the direction through RTS; true
    // only when it does. LINE_RS422 and LINE_RS232 are full duplex: RS-485 is
    // switched off where the kernel knows it, and they always succeed then.
    bool set422Or485Flag(int mode);
    int lineMode() const { return m_lineMode; }

    // Hides QIODevice::ungetChar: there is no buffer to push back into.
    void ungetChar(char c);

protected:
    qint64 readData(char *data, qint64 maxSize) override;
    qint64 writeData(const char *data, qint64 maxSize) override;

private:
    bool applySettings();
    bool setModemLine(int line, bool on);
    int pendingBytes() const;

    QString m_device;
    PortSettings m_settings;
    int m_lineMode = LINE_RS232;
    FdHandle m_fd;
};
