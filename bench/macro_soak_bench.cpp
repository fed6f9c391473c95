// Soak of the script engine: one script that reads and writes a Modbus TCP
// slave through the whole gateway path (getdata of a word, of a table and of
// a computed address; setdata to the device and to a local word), run pass
// after pass on the engine's thread. Reports the time of a pass and whether
// the process's resident memory and the interpreter's heap stay flat.
#include "Macro/Macro.h"
#include "benchlink.h"
#include "procstat.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <unistd.h>

namespace {

const char kScript[] = R"(
n = (n or 0) + 1
local v = getdata("PLC1", "4X", 10, 1, 1, DATA_TYPE_WUB)
local block = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0}
getdata("PLC1", "4X", 20, 1, block, DATA_TYPE_WUB)
local at = 30 + n % 4
local w = getdata("PLC1", "4X", at, 1, 1, DATA_TYPE_WUB)
local text = string.format("%d/%d/%d", v or -1, w or -1, #block)
setdata("PLC1", "4X", 11, n % 65536, 1, nil, DATA_TYPE_WUB)
setdata("", "LW", 5, #text, 0, nil, DATA_TYPE_WUB)
setdata("", "LW", 6, collectgarbage("count"), 0, nil, DATA_TYPE_WUB)
)";

int localWord(int addr)
{
    uint16_t v = 0;
    communication::getInstance()->getCommValue("", "LW", addr, 0, 1, reinterpret_cast<uchar *>(&v), 2);
    return v;
}

}  // namespace

int main(int argc, char **argv)
{
    const int passes = lumbra::bench::intArg(argc, argv, 1, 10000);
    QCoreApplication app(argc, argv);
    lumbra::bench::TcpLinkBench bench;
    const QJsonObject item{{"id", 1}, {"type", 3}, {"flag", 1}, {"text", kScript}};
    bench.work.write("iotRunTime/ScriptConfiguration.json",
                     QJsonDocument(QJsonObject{{"data", QJsonArray{item}}}).toJson());
    if (!bench.start(MODBUS_TCP_DRIVER, 0))
        return 1;
    bench.slave->setHolding(10, 42);
    Macro *macro = Macro::getInstance();
    macro->init();
    // Warm up: the computed addresses join the poll plan, the heap settles.
    for (int i = 0; i < 100; ++i)
        macro->runLua(1);
    if (!macro->sync(60000)) {
        std::fprintf(stderr, "the engine did not take up the warm-up runs\n");
        return 1;
    }
    const long rssStart = lumbra::bench::residentKb(getpid());
    const int heapStart = localWord(6);
    long rssPeak = rssStart;
    QElapsedTimer clock;
    clock.start();
    for (int done = 0; done < passes; done += 100) {
        for (int i = 0; i < 100; ++i)
            macro->runLua(1);
        if (!macro->sync(60000)) {
            std::fprintf(stderr, "the engine stalled after %d passes\n", done);
            return 1;
        }
        rssPeak = qMax(rssPeak, lumbra::bench::residentKb(getpid()));
    }
    const double ms = clock.nsecsElapsed() / 1e6 / passes;
    const long rssEnd = lumbra::bench::residentKb(getpid());
    const bool wrote = bench.slave->holding(11) == (passes + 100) % 65536;
    macro->stop();
    communication::getInstance()->stopLinks();
    std::printf("%d script passes, 3 getdata and 3 setdata each (one device write): %.3f ms a pass; "
                "resident %ld kB after warm-up, %ld kB at the end (peak %ld kB); Lua heap %d kB -> %d kB; "
                "last device write %s\n",
                passes, ms, rssStart, rssEnd, rssPeak, heapStart, localWord(6), wrote ? "arrived" : "MISSING");
    return wrote ? 0 : 1;
}
