// The bridge, the agent and the platform in one, at the outbox seam: takes
// each message the services post, as the bridge's sender would, and answers
// it after a delay, as a platform one round trip away would. No socket in
// between, so what is timed is the services' own pacing. Header-only: users
// link the outbox through the service they test.
#pragma once

#include "Outbox/Outbox.h"

#include <QElapsedTimer>
#include <QJsonDocument>
#include <QJsonObject>
#include <QList>
#include <QString>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

namespace lumbra::test {

struct Posted {
    QString topic;  // the short form, "/DevSend/Alarm"
    QJsonObject msg;
    bool zip = false;
    qint64 atMs = -1;  // since the platform started
    bool ok() const { return atMs >= 0; }
};

class OutboxPlatform {
public:
    // answer runs on the platform's thread delayMs after each message came;
    // none: nothing is answered.
    using Answer = std::function<void(const Posted &)>;

    explicit OutboxPlatform(int delayMs = 0, Answer answer = nullptr) : m_delayMs(delayMs), m_answer(std::move(answer))
    {
        Outbox::getInstance()->open();
        Outbox::getInstance()->clear();
        m_clock.start();
        m_thread = std::thread([this] { loop(); });
    }
    ~OutboxPlatform()
    {
        m_stop = true;
        m_thread.join();
    }
    OutboxPlatform(const OutboxPlatform &) = delete;
    OutboxPlatform &operator=(const OutboxPlatform &) = delete;

    QList<Posted> received() const
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_received;
    }
    // The next message not read yet whose topic ends with suffix (others
    // are passed over); !ok() when none came within timeoutMs.
    Posted next(const QString &suffix, int timeoutMs)
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        Posted found;
        m_arrived.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] {
            for (; m_read < m_received.size(); ++m_read) {
                if (m_received.at(m_read).topic.endsWith(suffix)) {
                    found = m_received.at(m_read++);
                    return true;
                }
            }
            return false;
        });
        return found;
    }

private:
    void loop()
    {
        std::deque<Posted> pending;  // in arrival order, so in order of answer
        while (!m_stop) {
            const qint64 wait = pending.empty() ? 20 : pending.front().atMs + m_delayMs - m_clock.elapsed();
            Outbox::Message m;
            if (Outbox::getInstance()->take(&m, static_cast<int>(qBound<qint64>(0, wait, 20))))
                record(m.text, &pending);
            while (!pending.empty() && pending.front().atMs + m_delayMs <= m_clock.elapsed()) {
                if (m_answer)
                    m_answer(pending.front());
                pending.pop_front();
            }
        }
    }
    void record(const QByteArray &text, std::deque<Posted> *pending)
    {
        const QJsonObject envelope = QJsonDocument::fromJson(text).object();
        const QString topic = envelope.value("topic").toString();
        Posted p;
        p.topic = topic.mid(qMax(0, topic.indexOf("/DevSend/")));
        p.msg = QJsonDocument::fromJson(envelope.value("msg").toString().toUtf8()).object();
        p.zip = envelope.value("zip").toBool();
        p.atMs = m_clock.elapsed();
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_received.append(p);
        }
        m_arrived.notify_all();
        pending->push_back(p);
    }

    const int m_delayMs;
    const Answer m_answer;
    QElapsedTimer m_clock;
    mutable std::mutex m_mutex;
    std::condition_variable m_arrived;
    QList<Posted> m_received;
    int m_read = 0;
    std::atomic<bool> m_stop{false};
    std::thread m_thread;
};

}  // namespace lumbra::test
