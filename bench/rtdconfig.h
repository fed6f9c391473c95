// Configuration texts for the real-time benchmarks: many points of mixed
// types on one Modbus TCP link named PLC1.
#pragma once

#include "tcplink.h"

#include <QByteArray>
#include <QString>
#include <QStringList>

namespace lumbra::bench {

using lumbra::test::tcpLinkJson;

// Points cycle through u16, s16 with two decimals, u32, scaled float and a
// bit of a word, over the first 2000 holding registers.
inline QByteArray rtdConfig(int points)
{
    struct Kind {
        const char *fields;
        const char *bit;  // suffix of the register number
    };
    static const Kind kinds[] = {
        {R"("data_type":0)", ""},
        {R"("data_type":2,"data_devimalDigits":2)", ""},
        {R"("data_type":1)", ""},
        {R"("data_type":6,"data_devimalDigits":1,"data_deal_type":1,"zoom_ratio":"0.5","zoom_offset":"2")", ""},
        {R"("data_type":-1)", ".3"},
    };
    QStringList items;
    for (int i = 0; i < points; ++i) {
        const Kind &k = kinds[i % 5];
        items << QString(R"({"data_code":%1,%2,"data_readAddress":{"link":"PLC1","block":"4X","no":"%3%4","sta":1,)"
                         R"("length":1}})")
                     .arg(i + 1)
                     .arg(k.fields)
                     .arg((i / 5) % 1000 * 2)
                     .arg(k.bit);
    }
    return QString(R"({"upload_func_state":true,"global_upload_time":0,"data":[%1]})").arg(items.join(',')).toUtf8();
}

}  // namespace lumbra::bench
