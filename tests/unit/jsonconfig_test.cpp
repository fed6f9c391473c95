// JSON written by hand on the hot paths, and configuration files read item
// by item: both must give what a JSON document would have given.
#include "generalFunc/configfile.h"
#include "generalFunc/jsonvalue.h"
#include "testsupport.h"

#include <QJsonArray>
#include <QJsonDocument>

#include <gtest/gtest.h>

using namespace lumbra::test;

namespace {

// What a JSON parser reads back from the literal appendJsonString wrote.
QString readBack(const QByteArray &literal)
{
    return QJsonDocument::fromJson("[" + literal + "]").array().at(0).toString("<not a string>");
}

struct Read {
    bool ok = false;
    QJsonObject root;
    QJsonArray items;
};

Read readItems(WorkDir &dir, const QByteArray &text)
{
    dir.write("cfg.json", text);
    Read r;
    r.ok = lumbra::readConfigItems(dir.path() + "/cfg.json", {"no such", "cannot open", "parse fail"}, &r.root,
                                   [&](const QJsonValue &v) { r.items.append(v); });
    return r;
}

}  // namespace

TEST(JsonString, EveryTextReadsBackAsItWas)
{
    const QString texts[] = {
        "",
        "plain 12.5",
        "\"quoted\" and \\back\\slashed\\",
        QString("tab\tnew\nline\r nul") + QChar(0) + QChar(0x1f) + " end",
        QString::fromUtf8("温度 °C ✓"),
        QString(3000, '"'),  // nothing but escapes
        QString(70, 'x') + "\"",  // past the short-text path
    };
    for (const QString &t : texts) {
        QByteArray fromQString("prefix:");
        lumbra::appendJsonString(fromQString, t);
        ASSERT_TRUE(fromQString.startsWith("prefix:"));
        EXPECT_EQ(readBack(fromQString.mid(7)), t);
        QByteArray fromUtf8;
        lumbra::appendJsonString(fromUtf8, t.toUtf8());
        EXPECT_EQ(fromUtf8, fromQString.mid(7));
    }
    QByteArray n;
    for (qint64 v : {qint64(0), qint64(-7), qint64(2147483647), qint64(-9007199254740991)}) {
        n.clear();
        lumbra::appendJsonInt(n, v);
        EXPECT_EQ(n, QByteArray::number(v));
    }
}

TEST(ConfigItems, ItemsComeOneByOneAndTheRestAsTheObject)
{
    WorkDir dir;
    const Read r = readItems(dir, R"( {"upload_func_state":true, "note":"a [tricky] {text} \" ]",
        "data" : [ {"data_code":1,"name":"x\"]}"}, 7, "s", [1,[2]], {"data_code":2} ],
        "after":{"data":[9]} } )");
    ASSERT_TRUE(r.ok);
    EXPECT_EQ(r.items, QJsonDocument::fromJson(R"([{"data_code":1,"name":"x\"]}"},7,"s",[1,[2]],{"data_code":2}])")
                           .array());
    EXPECT_TRUE(r.root.value("upload_func_state").toBool());
    EXPECT_EQ(r.root.value("note").toString(), "a [tricky] {text} \" ]");
    EXPECT_EQ(r.root.value("after").toObject().value("data").toArray().size(), 1);
    EXPECT_TRUE(r.root.value("data").toArray().isEmpty());
}

TEST(ConfigItems, ABrokenFileHandsOutNothing)
{
    WorkDir dir;
    const QByteArray broken[] = {
        R"({"data":[{"data_code":1},{"data_code":2,}]})",  // the last item is no JSON
        R"({"data":[{"data_code":1} {"data_code":2}]})",   // no comma between items
        R"({"data":[{"data_code":1}], "x":})",             // broken after the array
        R"({"data":[{"data_code":1}]} trailing)",
        R"({"data":[{"data_code":1}])",                    // never closed
        "",
    };
    for (const QByteArray &text : broken) {
        const Read r = readItems(dir, text);
        EXPECT_FALSE(r.ok) << text.constData();
        EXPECT_TRUE(r.items.isEmpty()) << text.constData();
    }
}

TEST(ConfigItems, FilesWithoutAnArrayOfItemsReadAsBefore)
{
    WorkDir dir;
    Read r = readItems(dir, R"({"upload_func_state":false})");
    EXPECT_TRUE(r.ok);
    EXPECT_TRUE(r.items.isEmpty());
    r = readItems(dir, R"({"data":[{"data_code":1}],"data":{"not":"an array"}})");  // the last one counts
    EXPECT_TRUE(r.ok);
    EXPECT_TRUE(r.items.isEmpty());
    r = readItems(dir, R"({"data":[]})");
    EXPECT_TRUE(r.ok);
    EXPECT_TRUE(r.items.isEmpty());
    EXPECT_FALSE(lumbra::readConfigItems(dir.path() + "/missing.json", {nullptr, nullptr, nullptr}, &r.root,
                                         [](const QJsonValue &) {}));
}
