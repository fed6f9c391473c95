// The script timer bank. The tick runs on the thread that owns this object
// (the main thread); a script to run on reaching a limit is handed to the
// engine's thread, the only one that enters the interpreter.
#include "HmiToMacroInterface.h"
#include "Macro.h"

#include "generalFunc/generalFunc.h"

#include <climits>

HmiToMacroInterface::HmiToMacroInterface()
    : m_value(kTimerSlots, 0),
      m_running(kTimerSlots, false),
      m_step(kTimerSlots, 1),
      m_limit(kTimerSlots, 65535),
      m_stopAtLimit(kTimerSlots, false),
      m_output(kTimerSlots),
      m_runOnLimit(kTimerSlots, -1)
{
    m_ticker.setInterval(1000);
    connect(&m_ticker, &QTimer::timeout, this, &HmiToMacroInterface::sysTimerForMacro);
    connect(this, &HmiToMacroInterface::runTimer, this, &HmiToMacroInterface::runTimerSlot);
}

int HmiToMacroInterface::timerRun(int i)
{
    emit runTimer(1);
    if (!valid(i))
        return -1;
    std::lock_guard<std::mutex> lock(m_bankLock);
    m_running[i] = true;
    return 0;
}

int HmiToMacroInterface::timerStop(int i)
{
    if (!valid(i))
        return 0;
    bool anyRunning = false;
    {
        std::lock_guard<std::mutex> lock(m_bankLock);
        m_running[i] = false;
        for (bool r : qAsConst(m_running))
            anyRunning = anyRunning || r;
    }
    if (!anyRunning)
        emit runTimer(0);
    return 1;
}

int HmiToMacroInterface::timerReset(int i, unsigned v)
{
    if (!valid(i))
        return 0;
    std::lock_guard<std::mutex> lock(m_bankLock);
    m_value[i] = v;
    return 1;
}

int HmiToMacroInterface::timerSkip(int i, unsigned v)
{
    if (!valid(i))
        return 0;
    std::lock_guard<std::mutex> lock(m_bankLock);
    m_step[i] = static_cast<int>(v);
    return 1;
}

unsigned HmiToMacroInterface::timerValue(int i)
{
    if (!valid(i))
        return 0;
    std::lock_guard<std::mutex> lock(m_bankLock);
    return m_value[i];
}

int HmiToMacroInterface::timerState(int i)
{
    if (!valid(i))
        return -1;
    std::lock_guard<std::mutex> lock(m_bankLock);
    return m_running[i] ? 1 : 0;
}

QString HmiToMacroInterface::timerStr(int i, int)
{
    if (!valid(i))
        return QString();
    const unsigned v = timerValue(i);
    return QString("%1:%2:%3").arg(v / 3600, 2, 10, QChar('0')).arg(v % 3600 / 60, 2, 10, QChar('0')).arg(v % 60, 2, 10,
                                                                                                        QChar('0'));
}

int HmiToMacroInterface::timerSetLimit(int i, unsigned limit, int stop)
{
    if (!valid(i))
        return 0;
    std::lock_guard<std::mutex> lock(m_bankLock);
    m_limit[i] = limit;
    m_stopAtLimit[i] = stop != 0;
    return 1;
}

int HmiToMacroInterface::timerSetOutput(int i, int linkId, const QString &reg, int addr, int station)
{
    if (!valid(i))
        return 0;
    std::lock_guard<std::mutex> lock(m_bankLock);
    m_output[i] = QString("%1@%2@%3@%4").arg(linkId).arg(reg).arg(addr).arg(station);
    return 1;
}

int HmiToMacroInterface::timerOutRun(int i, int scriptId)
{
    if (!valid(i))
        return 0;
    std::lock_guard<std::mutex> lock(m_bankLock);
    m_runOnLimit[i] = scriptId;
    return 1;
}

int HmiToMacroInterface::timerWaitFor(unsigned ms)
{
    unitTool::delay_ms(static_cast<int>(qMin<unsigned>(ms, INT_MAX)));
    return 1;
}

void HmiToMacroInterface::runTimerSlot(int on)
{
    if (on && !m_ticker.isActive())
        m_ticker.start();
    else if (!on && m_ticker.isActive())
        m_ticker.stop();
}

void HmiToMacroInterface::sysTimerForMacro()
{
    for (int i = 0; i < kTimerSlots; ++i) {
        int script = -1;
        bool elapsed = false;
        {
            std::lock_guard<std::mutex> lock(m_bankLock);
            if (!m_running[i])
                continue;
            elapsed = m_limit[i] <= m_value[i];
            if (elapsed)
                script = m_runOnLimit[i];
        }
        if (script != -1)
            Macro::getInstance()->runLua(script);
        Due due;
        if (tickOne(i, elapsed, due))
            writeOutput(due.output, due.value);
    }
}

// The rest of one timer's tick once its limit script has run: stop or wrap,
// then step. True when the count is to go to an output word.
bool HmiToMacroInterface::tickOne(int i, bool elapsed, Due &due)
{
    std::lock_guard<std::mutex> lock(m_bankLock);
    if (elapsed) {
        if (m_stopAtLimit[i]) {
            m_running[i] = false;
            return false;
        }
        m_value[i] = 0;
    }
    m_value[i] += static_cast<unsigned>(m_step[i]);
    due.output = m_output[i];
    due.value = m_value[i];
    return !due.output.isEmpty();
}

void HmiToMacroInterface::writeOutput(const QString &output, unsigned value)
{
    const QStringList f = output.split('@');
    if (f.size() < 4)
        return;
    const int linkId = f[0].toInt();
    const int station = f[3].toInt();
    const int index = getIndexFromAddr(linkId, f[1], f[2], station, 1);
    const uchar word[2] = {static_cast<uchar>(value & 0xFF), static_cast<uchar>((value >> 8) & 0xFF)};
    setCommValueNumber(linkId, f[1], index, station, 1, word, sizeof word);
}
