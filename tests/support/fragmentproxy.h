// A TCP proxy on loopback between a master and a device that mangles the
// device's replies the way serial-to-Ethernet converters and dying slaves do:
// cut in pieces, dribbled out byte by byte, held back and glued to the next
// reply, or swallowed. Requests pass unchanged. It runs on a thread of its
// own, which the destructor stops and joins.
#pragma once

#include <cstdint>
#include <memory>

namespace lumbra::test {

class FragmentProxy {
public:
    enum class Mode {
        Pass,       // every chunk from the device as it came
        Split,      // every chunk in two parts with a pause between
        Bytewise,   // every byte alone with a pause between bytes
        StaleTail,  // every nth chunk held back, then sent glued before the next one
    };
    struct Shape {
        Mode mode = Mode::Pass;
        int splitAt = 5;  // Split: bytes in the first part (5 cuts an MBAP header); 0 = a random place
        int splitPauseMs = 30;
        int bytePauseMs = 2;
        int staleEvery = 3;  // StaleTail: the 3rd, 6th, ... chunk of a connection is held
    };
    struct Counters {
        uint64_t toDeviceChunks = 0;
        uint64_t toClientChunks = 0;  // writes to the client: a split reply counts twice
    };

    // Listens on a free port of 127.0.0.1 and connects each client to 127.0.0.1:targetPort.
    explicit FragmentProxy(int targetPort);
    ~FragmentProxy();
    FragmentProxy(const FragmentProxy &) = delete;
    FragmentProxy &operator=(const FragmentProxy &) = delete;

    bool ok() const;
    int port() const;
    // Changes apply to the chunks the device sends from now on.
    void setShape(const Shape &shape);
    // A dead device still gets the requests, but its replies are swallowed
    // and the connections stay open, as with a slave that died behind a
    // converter.
    void setDeviceDead(bool dead);
    Counters counters() const;

    struct Impl;

private:
    std::unique_ptr<Impl> m_impl;
};

}  // namespace lumbra::test
