// A link's CAN bus: a Linux SocketCAN interface ("can0", ...) driven through a raw socket.
#pragma once

#include "ulinkport.h"

#include "device_comm/serialport/fdhandle.h"

#include <QMutex>
#include <string>

struct can_frame;

class ULinkPortCAN : public ULinkPort {
    Q_OBJECT
public:
    // What Recv appends per data frame, so drivers can walk the buffer in steps.
    static constexpr int kRecordSize = 13;

    explicit ULinkPortCAN(QObject *parent = nullptr);
    ~ULinkPortCAN() override;

    // text is "<interface>:<bit rate>", e.g. "can0:250000". Brings the
    // interface down, sets its bit rate (with a restart 1000 ms after a
    // bus-off) and brings it up again through ifconfig and ip, then binds a
    // raw CAN socket to it. An open port is closed first, once the text is
    // known to be good.
    bool setup(const std::string &text) override;
    // Waits up to timeoutMs for a frame, then takes every frame already
    // waiting. Each data frame becomes one kRecordSize-byte record:
    //   bytes 0..3   identifier, most significant byte first, with the flag
    //                bits as SocketCAN has them: bit 31 extended frame,
    //                bit 30 remote request; the identifier proper is the low
    //                29 bits (11 for a standard frame)
    //   byte  4      data length, 0..8
    //   bytes 5..12  data; bytes past the length are zero
    // Error frames are not appended, they are named in the log. Bytes
    // appended, 0 on time-out (or only error frames), -1 when the socket is
    // closed or failed.
    int Recv(QByteArray &buffer, int timeoutMs) override;
    // data is one frame: bytes 0..3 the identifier, most significant byte
    // first (0x800 and above go out as extended frames), then up to 8 data
    // bytes; more are cut with a log line. Bytes written to the socket, -1
    // for fewer than 6 bytes, a closed socket or a failed write.
    int Send(const char *data, int len) override;
    // Sets the port up again from the last set-up text: 1 done, -1 failed.
    int Reset() override;
    // 1 while the socket is open.
    int commStatus() override;
    void shutdown() override;

    // Test seam: takes ownership of fd, an open socket that carries whole
    // struct can_frame datagrams (a SOCK_SEQPACKET socket pair will do), in
    // place of a bound CAN socket. False, owning nothing, for a negative fd.
    bool attachSocket(int fd);

    // Packs a send stream (see Send) into frame: the data length, or -1 for
    // fewer than 6 bytes. Lengths past 8 are cut to 8.
    static int packFrame(const char *data, int len, can_frame *frame);
    // One debug line: 29-bit identifier, length and data bytes.
    static void printf_frame(const can_frame &frame);
    // Names each error class set in an error frame's identifier, one line each.
    static void handle_err_frame(const can_frame &frame);

private:
    bool openInterface();
    int writeFrame(const can_frame &frame);

    mutable QMutex m_mutex;
    std::string m_interface;
    int m_bitrate = 0;
    FdHandle m_socket;
};
