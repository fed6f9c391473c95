// What the outbox keeps while the agent cannot take it, and in which order
// it gives it up.
#include "Outbox/Outbox.h"
#include "deviceInfo/deviceInfo.h"
#include "testsupport.h"

#include <QJsonDocument>
#include <QJsonObject>

#include <gtest/gtest.h>

using namespace lumbra::test;

namespace {

Outbox *const box = Outbox::getInstance();

// The payload texts waiting, in the order the bridge would send them.
QStringList drain()
{
    QStringList out;
    Outbox::Message m;
    while (box->take(&m, 0))
        out << QJsonDocument::fromJson(m.text).object().value("msg").toString();
    return out;
}

class OutboxTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        box->open();
        box->clear();
        box->setCloudState(true);
    }
};

}  // namespace

TEST_F(OutboxTest, RealTimeCoalescesStoredWaitsForTheCloudOthersKeepTheirOrder)
{
    ASSERT_TRUE(box->post("/DevSend/RTD", "rtd1", false, 0, Outbox::Latest));
    ASSERT_TRUE(box->post("/DevSend/Ack", "ack1", false, 0, Outbox::Ordered));
    ASSERT_TRUE(box->post("/DevSend/RTD", "rtd2", false, 0, Outbox::Latest));
    ASSERT_TRUE(box->post("/DevSend/RTDCompress", "zip1", true, 0, Outbox::Latest));
    ASSERT_TRUE(box->post("/DevSend/Alarm", "alarm1", false, 0, Outbox::Stored));
    EXPECT_EQ(drain(), (QStringList{"rtd2", "ack1", "zip1", "alarm1"}));

    const quint64 ups = box->upCount();
    box->agentLost();
    EXPECT_FALSE(box->cloudUp());
    EXPECT_FALSE(box->post("/DevSend/Alarm", "alarm2", false, 0, Outbox::Stored));
    EXPECT_TRUE(box->post("/DevSend/Ack", "ack2", false, 0, Outbox::Ordered));
    Outbox::Message m;
    ASSERT_TRUE(box->take(&m, 0));
    box->putBack(m);  // an ordered message the agent did not take goes first again
    box->setCloudState(true);
    EXPECT_EQ(box->upCount(), ups + 1);
    EXPECT_EQ(drain(), QStringList{"ack2"});
}

TEST_F(OutboxTest, AFullBoxDropsRealTimeFirstThenStoredThenTheOldest)
{
    box->post("/DevSend/Alarm", "stored", false, 0, Outbox::Stored);
    box->post("/DevSend/RTD", "rtd", false, 0, Outbox::Latest);
    for (int i = 0; i < Outbox::kMaxMessages; ++i)
        ASSERT_TRUE(box->post("/DevSend/Ack", QString::number(i), false, 0, Outbox::Ordered));
    const QStringList left = drain();
    ASSERT_EQ(left.size(), Outbox::kMaxMessages);
    EXPECT_EQ(left.first(), "0");  // both others went before any ordered one
    EXPECT_EQ(left.last(), QString::number(Outbox::kMaxMessages - 1));
    box->post("/DevSend/Ack", QString(Outbox::kMaxBytes / 2, 'x'), false, 0, Outbox::Ordered);
    box->post("/DevSend/Ack", "last", false, 0, Outbox::Ordered);
    box->post("/DevSend/Ack", QString(Outbox::kMaxBytes / 2, 'y'), false, 0, Outbox::Ordered);
    const QStringList big = drain();
    ASSERT_EQ(big.size(), 2);  // the oldest went to make room by bytes
    EXPECT_EQ(big.first(), "last");
}
