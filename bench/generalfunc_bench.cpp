// Per-call cost of the helpers on the hot path of every upload and every log line.
#include "generalFunc/generalFunc.h"
#include "generalFunc/globals.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <benchmark/benchmark.h>
#include <cstring>

namespace {

// Logging set up from rules, with the log files in a temp dir that lives as long as the caller's.
void initLogging(const QTemporaryDir &dir, const QByteArray &rules)
{
    QString conf = dir.path() + "/zlog.conf";
    QFile f(conf);
    f.open(QIODevice::WriteOnly);
    QByteArray text = rules;
    f.write(text.replace("LOGDIR", dir.path().toUtf8()));
    f.close();
    zlog_init(conf.toLocal8Bit().constData());
    g_zlog = zlog_get_category("iot");
}

// value2str of one value of type T, formatted as `type` with `decimal` digits.
template <typename T>
void valueToText(benchmark::State &state, T value, int type, int decimal)
{
    uint8_t buf[sizeof(T)];
    std::memcpy(buf, &value, sizeof buf);
    for (auto _ : state)
        benchmark::DoNotOptimize(unitTool::value2str(buf, sizeof buf, type, decimal));
}

void BM_value2str_u16_decimal(benchmark::State &s) { valueToText<uint16_t>(s, 1234, VALUE_U16, 2); }
void BM_value2str_s32(benchmark::State &s) { valueToText<int32_t>(s, -123456, VALUE_S32, 0); }
void BM_value2str_float(benchmark::State &s) { valueToText<float>(s, 3.14159f, VALUE_FLOAT, 2); }
void BM_value2str_bcd(benchmark::State &s) { valueToText<uint32_t>(s, 0x20240301, VALUE_BCD32, 0); }
BENCHMARK(BM_value2str_u16_decimal);
BENCHMARK(BM_value2str_s32);
BENCHMARK(BM_value2str_float);
BENCHMARK(BM_value2str_bcd);

// A log line written to a file with the format the examples use.
void BM_log_line_to_file(benchmark::State &state)
{
    QTemporaryDir dir;
    initLogging(dir, "[formats]\nsimple = \"%d(%F %T).%ms %-5V [%F:%L %U] %m%n\"\n"
                     "[rules]\niot.INFO \"LOGDIR/iot.log\", 10MB * 3; simple\n");
    int i = 0;
    for (auto _ : state)
        zlog_info(g_zlog, "link:%s station:%d value:%d", "PLC1", 1, ++i);
    zlog_fini();
}
BENCHMARK(BM_log_line_to_file);

// A DEBUG line on a box that logs INFO: what a filtered call costs.
void BM_log_line_filtered(benchmark::State &state)
{
    QTemporaryDir dir;
    initLogging(dir, "[rules]\niot.INFO \"LOGDIR/iot.log\"\n");
    for (auto _ : state)
        zlog_debug(g_zlog, "value:%d", 42);
    zlog_fini();
}
BENCHMARK(BM_log_line_filtered);

}  // namespace

BENCHMARK_MAIN();
