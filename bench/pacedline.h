// A serial line for the RTU benchmark that takes as long as a real one: two
// pseudo-terminals joined by a relay that lets each byte out only when the
// wire would have carried it at the given baud rate. A bare pty pair moves
// bytes as fast as the machine can, which says nothing about a line.
#pragma once

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QString>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <deque>
#include <poll.h>
#include <pty.h>
#include <termios.h>
#include <thread>
#include <unistd.h>

namespace lumbra::bench {

class PacedLine {
public:
    // Ends linked at linkA and linkB; bitsPerChar counts start, data, parity
    // and stop bits.
    PacedLine(const QString &linkA, const QString &linkB, int baud, int bitsPerChar)
        : m_linkA(linkA), m_linkB(linkB),
          m_charTime(std::chrono::nanoseconds(static_cast<long long>(1e9 * bitsPerChar / baud)))
    {
        m_ok = open(m_a, linkA) && open(m_b, linkB);
        if (m_ok)
            m_thread = std::thread([this] { relay(); });
    }
    ~PacedLine()
    {
        m_stop = true;
        if (m_thread.joinable())
            m_thread.join();
        for (End *e : {&m_a, &m_b}) {
            for (int fd : {e->master, e->tty})
                if (fd >= 0)
                    ::close(fd);
        }
        QFile::remove(m_linkA);
        QFile::remove(m_linkB);
    }
    PacedLine(const PacedLine &) = delete;
    PacedLine &operator=(const PacedLine &) = delete;

    bool ok() const { return m_ok; }
    QString linkA() const { return m_linkA; }
    QString linkB() const { return m_linkB; }

private:
    using Clock = std::chrono::steady_clock;
    struct Byte {
        char c;
        Clock::time_point due;
    };
    struct End {
        int master = -1;
        int tty = -1;  // kept open, so the line stays up while its user reopens it
        std::deque<Byte> out;  // bytes on their way to this end
        Clock::time_point wireFree;
    };

    static bool open(End &e, const QString &link)
    {
        if (::openpty(&e.master, &e.tty, nullptr, nullptr, nullptr) != 0)
            return false;
        termios t{};
        ::tcgetattr(e.tty, &t);
        ::cfmakeraw(&t);  // no echo before the user of the end sets its own mode
        ::tcsetattr(e.tty, TCSANOW, &t);
        QDir().mkpath(QFileInfo(link).path());
        QFile::remove(link);
        return QFile::link(QString::fromLocal8Bit(::ttyname(e.tty)), link);
    }

    // What came in at one end leaves the other end a character time apart.
    void take(End &from, End &to)
    {
        char buf[256];
        const ssize_t n = ::read(from.master, buf, sizeof buf);
        const Clock::time_point now = Clock::now();
        for (ssize_t i = 0; i < n; ++i) {
            to.wireFree = std::max(to.wireFree, now) + m_charTime;
            to.out.push_back({buf[i], to.wireFree});
        }
    }

    static void deliver(End &to, Clock::time_point now)
    {
        char buf[256];
        int n = 0;
        while (!to.out.empty() && to.out.front().due <= now && n < static_cast<int>(sizeof buf)) {
            buf[n++] = to.out.front().c;
            to.out.pop_front();
        }
        if (n > 0 && ::write(to.master, buf, static_cast<size_t>(n)) < 0 && errno != EAGAIN)
            to.out.clear();
    }

    void relay()
    {
        while (!m_stop) {
            Clock::time_point now = Clock::now();
            Clock::time_point next = now + std::chrono::milliseconds(20);
            for (End *e : {&m_a, &m_b})
                if (!e->out.empty())
                    next = std::min(next, e->out.front().due);
            const auto wait = std::chrono::duration_cast<std::chrono::nanoseconds>(next - now);
            const timespec ts{static_cast<time_t>(wait.count() / 1000000000), static_cast<long>(wait.count() % 1000000000)};
            const timespec none{0, 0};
            pollfd p[2] = {{m_a.master, POLLIN, 0}, {m_b.master, POLLIN, 0}};
            if (::ppoll(p, 2, wait.count() > 0 ? &ts : &none, nullptr) > 0) {
                if (p[0].revents & POLLIN)
                    take(m_a, m_b);
                if (p[1].revents & POLLIN)
                    take(m_b, m_a);
            }
            now = Clock::now();
            deliver(m_a, now);
            deliver(m_b, now);
        }
    }

    QString m_linkA;
    QString m_linkB;
    std::chrono::nanoseconds m_charTime;
    End m_a;
    End m_b;
    bool m_ok = false;
    std::atomic<bool> m_stop{false};
    std::thread m_thread;
};

}  // namespace lumbra::bench
