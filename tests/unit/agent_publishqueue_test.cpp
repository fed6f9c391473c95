// The agent's queue for a broker that is away: what goes when it is full,
// and in which order what is kept goes out.
#include "publishqueue.h"

#include <QStringList>

#include <gtest/gtest.h>

using agent::Pending;
using agent::PublishQueue;

namespace {

// 'R' real-time, 'Z' compressed real-time, 'A' alarm, 'C' a configuration
// request whose topic merely starts like a real-time one.
Pending message(char kind, const QByteArray &payload)
{
    const char *suffix = kind == 'R' ? "/DevSend/RTD"
                         : kind == 'Z' ? "/DevSend/RTDCompress"
                         : kind == 'A' ? "/DevSend/Alarm"
                                       : "/DevSend/RTDConfigReq";
    return Pending{QByteArray("/SN_3.0.0") + suffix, payload, 0};
}

QStringList drain(PublishQueue &q)
{
    QStringList out;
    for (; !q.empty(); q.pop())
        out << QString::fromUtf8(q.front().payload.left(8));
    return out;
}

}  // namespace

TEST(AgentPublishQueue, RealTimeGoesFirstThenTheOldestAndTheRestKeepsItsOrder)
{
    const QByteArray big(100, 'b');  // with its topic, about 120 bytes
    struct Case {
        const char *name;
        size_t maxMessages;
        qint64 maxBytes;
        std::vector<std::pair<char, QByteArray>> pushes;
        QStringList kept;
        unsigned long droppedRealtime, droppedOthers;
        int firstDropAt;  // the push that reports the first drop
    } cases[] = {
        {"count bound, real-time first", 3, 1 << 20,
         {{'R', "r0"}, {'A', "a0"}, {'R', "r1"}, {'Z', "z0"}, {'A', "a1"}}, {"a0", "z0", "a1"}, 2, 0, 3},
        {"no real-time left: the oldest other, then a new real-time one", 2, 1 << 20,
         {{'A', "a0"}, {'C', "c0"}, {'A', "a1"}, {'R', "r0"}}, {"c0", "a1"}, 1, 1, 2},
        {"byte bound", 100, 300, {{'A', big}, {'R', big}, {'A', big}, {'C', "c0"}}, {"bbbbbbbb", "bbbbbbbb", "c0"},
         1, 0, 2},
        {"one message over the byte bound alone", 100, 90, {{'A', "a0"}, {'R', big}, {'A', "a1"}}, {"a0", "a1"}, 1,
         0, 1},
    };
    for (const Case &c : cases) {
        PublishQueue q(c.maxMessages, c.maxBytes);
        int firstDropAt = -1;
        for (size_t i = 0; i < c.pushes.size(); ++i)
            if (q.push(message(c.pushes[i].first, c.pushes[i].second)))
                firstDropAt = firstDropAt < 0 ? int(i) : 1000;  // reported twice: wrong
        EXPECT_EQ(firstDropAt, c.firstDropAt) << c.name;
        const PublishQueue::Drops d = q.takeDrops();
        EXPECT_EQ(d.realtime, c.droppedRealtime) << c.name;
        EXPECT_EQ(d.others, c.droppedOthers) << c.name;
        EXPECT_LE(q.bytes(), c.maxBytes) << c.name;
        EXPECT_EQ(drain(q), c.kept) << c.name;
        EXPECT_EQ(q.bytes(), 0) << c.name;
    }
}

TEST(AgentPublishQueue, EachOutageReportsItsFirstDropOnce)
{
    PublishQueue q(2, 1 << 20);
    int reported = 0;
    for (int i = 0; i < 50; ++i)
        reported += q.push(message('R', QByteArray::number(i)));
    EXPECT_EQ(reported, 1);
    EXPECT_EQ(q.takeDrops().total(), 48u);
    EXPECT_EQ(q.takeDrops().total(), 0u);
    EXPECT_TRUE(q.push(message('A', "next outage")));
    EXPECT_EQ(drain(q), QStringList({"49", "next out"}));
}
