#include "device_comm/src/iec104splitter.h"
#include "testsupport.h"

#include <QStringList>

#include <gtest/gtest.h>

using namespace lumbra::test;

namespace {

// "68 04 43 00 00 00" -> bytes
QByteArray hex(const char *text)
{
    return QByteArray::fromHex(QByteArray(text).replace(' ', ""));
}

// Feeds the chunks one after the other, collecting what comes out as hex.
QStringList split(Iec104Splitter &s, const QList<QByteArray> &chunks)
{
    QStringList out;
    for (const QByteArray &chunk : chunks) {
        s.append(chunk);
        QByteArray apdu;
        while (s.next(&apdu))
            out << apdu.toHex(' ');
    }
    return out;
}

}  // namespace

TEST(Iec104Splitter, HandsOutWholeApdusHoweverTheStreamIsCut)
{
    const QByteArray testAct = hex("68 04 43 00 00 00"), startAct = hex("68 04 07 00 00 00");
    const QByteArray iFrame = hex("68 0e 00 00 00 00 64 01 06 00 01 00 00 00 00 14");
    const QByteArray longest = hex("68 fd") + QByteArray(253, '\x11');
    struct Case {
        const char *name;
        QList<QByteArray> chunks;
        QStringList apdus;
        int pending;  // bytes left waiting for more
        const char *logged;
    } cases[] = {
        {"stuck together", {testAct + startAct}, {testAct.toHex(' '), startAct.toHex(' ')}, 0, nullptr},
        {"cut in three", {iFrame.left(1), iFrame.mid(1, 3), iFrame.mid(4)}, {iFrame.toHex(' ')}, 0, nullptr},
        {"rest still to come", {testAct + iFrame.left(5)}, {testAct.toHex(' ')}, 5, nullptr},
        {"garbage first", {hex("01 02 03") + testAct}, {testAct.toHex(' ')}, 0, "error fail return;"},
        {"only garbage", {hex("01 02 03"), hex("ff")}, {}, 0, "error fail return;"},
        {"length too short", {hex("68 02 00 00") + testAct}, {testAct.toHex(' ')}, 0, "error return; length 2"},
        {"length too long", {hex("68 fe") + testAct}, {testAct.toHex(' ')}, 0, "error return; length 254"},
        {"longest there is", {longest.left(100), longest.mid(100)}, {longest.toHex(' ')}, 0, nullptr},
    };
    for (const Case &c : cases) {
        LogCapture log;
        Iec104Splitter s;
        EXPECT_EQ(split(s, c.chunks), c.apdus) << c.name;
        EXPECT_EQ(s.pending(), c.pending) << c.name;
        if (c.logged)
            EXPECT_TRUE(log.contains(c.logged)) << c.name << "\n" << log.text().toStdString();
        else
            EXPECT_FALSE(log.contains("Sticking package")) << c.name;
    }
}

TEST(Iec104Splitter, GarbageThatKeepsComingIsLoggedOnceAndANewConnectionStartsClean)
{
    LogCapture log;
    Iec104Splitter s;
    for (int i = 0; i < 100; ++i)
        split(s, {hex("01 02 03 68 01")});
    EXPECT_EQ(log.count("Sticking package parsing error fail return;"), 1);
    EXPECT_EQ(log.count("Sticking package parsing error return;"), 1);

    split(s, {hex("68 04 43")});
    s.clear();  // the station reconnected: its old half APDU is gone
    EXPECT_EQ(split(s, {hex("68 04 07 00 00 00")}), QStringList{"68 04 07 00 00 00"});
}
