// The real-time service's formatting, configuration and passes, on the
// gateway's own registers so that no device is needed.
#include "RealData/RealData.h"
#include "device_comm/communication.h"
#include "testsupport.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <cmath>
#include <cstring>
#include <gtest/gtest.h>

using namespace lumbra::test;

namespace {

RealData::DataCfg_t point(int type, int decimals = 0, int deal = 0, const char *k = "", const char *b = "")
{
    RealData::DataCfg_t cfg;
    cfg.dataType = type;
    cfg.decimalDigits = decimals;
    cfg.dealType = deal;
    cfg.zoomRatio = k;
    cfg.zoomOffset = b;
    cfg.addr.length = 4;
    return cfg;
}

template <typename T>
QByteArray raw(T v)
{
    QByteArray b(8, '\0');
    std::memcpy(b.data(), &v, sizeof v);
    return b;
}

QString format(const RealData::DataCfg_t &cfg, const QByteArray &bytes)
{
    return RealData::formatValue(cfg, reinterpret_cast<const uchar *>(bytes.constData()), bytes.size(), "old");
}

QJsonObject lwPoint(int code, int type, int lw, const char *extra = "")
{
    return QJsonDocument::fromJson(QString(R"({"data_code":%1,"data_type":%2,%4
        "data_readAddress":{"link":"local","block":"LW","no":"%3","sta":0,"length":1}})")
                                       .arg(code)
                                       .arg(type)
                                       .arg(lw)
                                       .arg(extra)
                                       .toUtf8())
        .object();
}

// code -> text of an RTD message.
QMap<int, QString> values(const QString &message)
{
    QMap<int, QString> out;
    for (const QJsonValue &v : QJsonDocument::fromJson(message.toUtf8()).object().value("data").toArray())
        out.insert(v.toObject().value("code").toInt(), v.toObject().value("data").toString());
    return out;
}

void setLw(int addr, uint16_t value)
{
    communication::getInstance()->setLocalValue(0, addr, 1, reinterpret_cast<const uchar *>(&value));
}

}  // namespace

TEST(RealDataFormat, EachTypeBecomesTheTextTheCloudExpects)
{
    struct Case {
        RealData::DataCfg_t cfg;
        QByteArray bytes;
        const char *text;
    } cases[] = {
        // The common forms travel end to end in the gateway tests; these are the corners.
        {point(-1), raw<uint8_t>(0), "0"},
        {point(2), raw<int16_t>(-2), "-2"},
        {point(3, 0, 1, "2", "-1"), raw<int32_t>(-5), "-11"},  // scaled integers keep 0 decimals
        {point(6, 1, 1, "2", "1"), raw<float>(2.0f), "5.0"},
        {point(6, 1), raw<float>(2.26f), "2.3"},
        {point(7), QByteArray("AB\0junk", 8), "AB"},
        {point(9), raw<uint16_t>(1), "old"},
    };
    for (const Case &c : cases)
        EXPECT_EQ(format(c.cfg, c.bytes), c.text) << "type " << c.cfg.dataType << " expects " << c.text;
}

// Integers with decimals are printed without going through a double; the
// text must be the one the double would have given, sign and zeros included.
TEST(RealDataFormat, DecimalsOfIntegersMatchTheFloatingPointText)
{
    const int32_t values[] = {0, 1, -1, 5, -5, 9, 10, -10, 99, 100, 12345, -32768, 65535, 2147483647, -2147483647 - 1};
    for (int type : {0, 1, 2, 3}) {
        for (int decimals = -1; decimals <= 9; ++decimals) {
            for (int32_t v : values) {
                const double number = type == 0 ? uint16_t(v) : type == 1 ? double(uint32_t(v)) : type == 2 ? int16_t(v) : v;
                const QString expected =
                    QString::number(decimals > 0 ? number / std::pow(10.0, decimals) : number, 'f', qMax(decimals, 0));
                EXPECT_EQ(format(point(type, decimals), raw<int32_t>(v)), expected)
                    << "type " << type << " decimals " << decimals << " raw " << v;
            }
        }
    }
}

TEST(RealDataFormat, WriteScalingUndoesReadScaling)
{
    for (const RealData::DataCfg_t &cfg : {point(0, 2), point(2, 1, 1, "0.5", "-3"), point(6, 3, 1, "4", "2")}) {
        for (double raw : {0.0, 17.0, -250.0})
            EXPECT_DOUBLE_EQ(RealData::setWriteZoom(cfg, RealData::setZoom(cfg, raw)), raw) << cfg.dataType;
    }
    EXPECT_DOUBLE_EQ(RealData::setZoom(point(4, 2), 1234), 1234);  // BCD is never divided
}

// Texts kept in the record and texts kept apart must behave alike: equal
// whatever call set them, and the same JSON, also inside another JSON string.
TEST(RealDataValueText, EveryFormComparesAndWritesAlike)
{
    const QString texts[] = {"",
                             "-12.5",
                             "123456789012345",  // the longest kept in the record
                             "1234567890123456",
                             "say \"hi\"",
                             "back\\slash",
                             QString::fromUtf8("23 \xc2\xb0""C"),
                             "tab\there"};
    for (const QString &text : texts) {
        SCOPED_TRACE(text.toStdString());
        ValueText fromQString;
        EXPECT_EQ(fromQString.set(text), !text.isEmpty());
        EXPECT_FALSE(fromQString.set(text));  // the same again is no change
        ValueText fromLatin1;
        const QByteArray latin1 = text.toLatin1();
        fromLatin1.set(latin1.constData(), latin1.size());
        EXPECT_TRUE(fromLatin1 == fromQString);
        EXPECT_EQ(fromLatin1.toString(), text);

        QByteArray plain = "[";
        fromQString.appendJson(plain, false);
        plain.append(']');
        EXPECT_EQ(QJsonDocument::fromJson(plain).array().at(0).toString(), text) << plain.constData();
        QByteArray nested = "[\"";
        fromQString.appendJson(nested, true);
        nested.append("\"]");
        const QByteArray inner = QJsonDocument::fromJson(nested).array().at(0).toString().toUtf8();
        EXPECT_EQ(QJsonDocument::fromJson("[" + inner + "]").array().at(0).toString(), text) << nested.constData();

        ValueText other;
        other.set("x", 1);
        EXPECT_TRUE(other != fromQString);
        EXPECT_TRUE(other.set(text));
        EXPECT_TRUE(other == fromQString);
    }
    for (const char *number : {"-12.5", "1234567890123456"}) {  // numbers skip the look at each byte
        ValueText plain;
        ValueText general;
        EXPECT_TRUE(plain.setPlain(number, int(std::strlen(number))));
        general.set(QString(number));
        EXPECT_TRUE(plain == general) << number;
        EXPECT_EQ(plain.toString(), number);
    }
}

class RealDataPass : public ::testing::Test {
protected:
    LogCapture log;
    WorkDir work;
    RealData *rd = RealData::getInstance();

    void SetUp() override
    {
        for (int code : rd->codeDataMap().keys())
            rd->DataCfgOpt(code, {}, ADDR_DELETE);
    }
    void add(const QJsonObject &item)
    {
        RealData::DataCfg_t cfg = RealData::pointFromJson(item);
        rd->DataCfgOpt(cfg.code, cfg, ADDR_ADD);
    }
};

TEST_F(RealDataPass, ChangedOnlyPassesSendWhatChangedAndNothingElse)
{
    setLw(100, 5);
    setLw(101, 6);
    add(lwPoint(1, 0, 100));
    add(lwPoint(2, 2, 101, R"("data_devimalDigits":1,)"));
    rd->setUploadFunState(true);
    EXPECT_EQ(values(rd->rtdMessage(true)), (QMap<int, QString>{{1, "5"}, {2, "0.6"}}));
    EXPECT_TRUE(rd->rtdMessage(true).isEmpty());  // nothing changed: no message at all
    setLw(101, 0xFFFF);
    EXPECT_EQ(values(rd->rtdMessage(true)), (QMap<int, QString>{{2, "-0.1"}}));
    EXPECT_EQ(values(rd->rtdMessage(false)).size(), 2);
    QString text;
    EXPECT_TRUE(rd->GetDataByCode(2, text));
    EXPECT_EQ(text, "-0.1");
    EXPECT_FALSE(rd->GetDataByCode(99, text));

    rd->setUploadFunState(false);
    setLw(100, 9);
    EXPECT_TRUE(rd->rtdMessage(false).isEmpty());  // switched off: read, never sent
    EXPECT_TRUE(rd->GetDataByCode(1, text) && text == "9");
}

TEST_F(RealDataPass, BrokenFilesLeaveTheServiceStopped)
{
    rd->init();
    EXPECT_TRUE(log.contains("Real data config file no such"));
    work.write("iotRunTime/RealTimeConfiguration.json", "[1,2]");
    rd->init();
    EXPECT_TRUE(log.contains("Real data config parse fail"));
    EXPECT_TRUE(rd->codeDataMap().isEmpty());
    EXPECT_FALSE(rd->isRunning());
}

TEST_F(RealDataPass, OnlineEditsRewriteTheFile)
{
    const QString path = "iotRunTime/RealTimeConfiguration.json";
    work.write(path, R"({"upload_func_state":true,"data":[{"data_code":1,"data_name":"a"},{"data_code":2}]})");
    auto codes = [&] {
        QStringList out;
        for (const QJsonValue &v : QJsonDocument::fromJson(readFile(work.file(path))).object()["data"].toArray())
            out << QString("%1%2").arg(v["data_code"].toInt()).arg(v["data_name"].toString());
        return out.join(',');
    };
    rd->setConfigFile(R"({"operation_type":"add","data":[{"data_code":3,"data_name":"c"}]})");
    EXPECT_EQ(codes(), "1a,2,3c");
    rd->setConfigFile(R"({"operation_type":"modify","data":[{"data_code":1,"data_name":"z"}]})");
    EXPECT_EQ(codes(), "1z,2,3c");
    rd->setConfigFile(R"({"operation_type":"delete","ids":[2,3,42]})");
    EXPECT_EQ(codes(), "1z");
    rd->setConfigFile("{not json");
    EXPECT_TRUE(log.contains("json parse fail:"));
    EXPECT_EQ(codes(), "1z");
    EXPECT_TRUE(QJsonDocument::fromJson(readFile(work.file(path))).object()["upload_func_state"].toBool());
}
