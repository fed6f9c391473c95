#include "deviceInfo/deviceInfo.h"
#include "generalFunc/globals.h"
#include "testsupport.h"

#include <QJsonDocument>
#include <QJsonObject>

#include <gtest/gtest.h>

using namespace lumbra::test;

TEST(DeviceInfo, ReadsSerialAndDescribesTheBox)
{
    LogCapture log;
    BoxRoot box;
    box.write("/usr/brenta/iot_conf/sn.conf", "  A1B2C3 \nsecond line\n");
    box.write("/usr/brenta/config.ini", "MODEL=VELOR-100\n");
    box.write("/usr/brenta/iot_work/iot_config.ini", "version=3.0.0\n");
    box.write("/usr/brenta/net_inf.ini", "Choose_ID=2\nRouteModel=1\n");
    // A value with a comma stays one text.
    box.write("/tmp/run/4g.info", "IMEI=8613\nmodle_name=EC20,CN\nnet_stat=1\nsignalStrength=23\n"
                                  "QCCID=8986\nsim_state=1\nifname=usb0\n");
    deviceInfo::getInstance()->init();
    EXPECT_EQ(deviceInfo::getInstance()->sn(), "A1B2C3");

    QJsonObject o = QJsonDocument::fromJson(deviceInfo::getInstance()->DevInfoJson().toUtf8()).object();
    EXPECT_EQ(o["sn_code"].toString(), "A1B2C3");
    EXPECT_EQ(o["model"].toString(), "VELOR-100");
    EXPECT_EQ(o["version"].toString(), g_IotVersion);
    EXPECT_FALSE(o["kernel"].toString().isEmpty());
    EXPECT_EQ(o["net"].toObject()["Choose_ID"].toInt(), 2);
    EXPECT_EQ(o["net"].toObject()["RouteModel"].toInt(), 1);
    QJsonObject g4 = o["4g"].toObject();
    EXPECT_EQ(g4["IMEI"].toString(), "8613");
    EXPECT_EQ(g4["signalStrength"].toInt(), 23);
    EXPECT_EQ(g4["ifname"].toString(), "usb0");
    EXPECT_EQ(g4["modle_name"].toString(), "EC20,CN");
    EXPECT_FALSE(log.contains("no-exist"));
}

TEST(DeviceInfo, MissingBoxFilesGiveDefaultsAndOneLineEach)
{
    LogCapture log;
    BoxRoot box;
    deviceInfo::getInstance()->init();
    EXPECT_EQ(deviceInfo::getInstance()->sn(), "");
    QJsonObject o = QJsonDocument::fromJson(deviceInfo::getInstance()->DevInfoJson().toUtf8()).object();
    EXPECT_EQ(o["sn_code"].toString(), "");
    EXPECT_EQ(o["model"].toString(), "");
    EXPECT_FALSE(o.contains("net"));
    EXPECT_FALSE(o.contains("4g"));
    EXPECT_EQ(log.count("read " + box.path() + "/usr/brenta/iot_conf/sn.conf fail"), 1);
    EXPECT_EQ(log.count("file no-exist:" + box.path() + "/usr/brenta/config.ini"), 1);
    EXPECT_EQ(log.count("file no-exist:" + box.path() + "/tmp/run/4g.info"), 1);
}
