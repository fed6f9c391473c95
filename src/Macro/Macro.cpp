#include "Macro.h"

#include "HmiToMacroInterface.h"
#include "macrolib.h"

#include "device_comm/addressjson.h"
#include "device_comm/communication.h"
#include "device_comm/externaladdrtable.h"
#include "generalFunc/configfile.h"
#include "generalFunc/datatypes.h"
#include "generalFunc/generalFunc.h"
#include "generalFunc/globals.h"
#include "generalFunc/jsonvalue.h"

#include <QFile>
#include <cstring>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

extern "C" {
#include <lauxlib.h>
#include <lua.h>
#include <lualib.h>
}

namespace {

const char kConfigPath[] = "./iotRunTime/ScriptConfiguration.json";
const lumbra::ConfigFileTexts kEditTexts{"Macro config file no such", "Macro config file open fail",
                                         "Macro config parse fail"};
const char kAbnormal[] = "The script runtime environment is abnormal.";

QByteArray local8(const QString &s) { return s.toLocal8Bit(); }

int scriptId(const QJsonObject &item)
{
    return lumbra::jsonInt(item.contains("id") ? item.value("id") : item.value("script_id"));
}

}  // namespace

Macro *Macro::getInstance()
{
    static Macro instance;
    return &instance;
}

Macro::Macro() : m_hmi(std::make_unique<HmiToMacroInterface>()) {}

// A static instance outlives main(); its thread must be gone by then. The
// interpreter is left to the process's end: scripts may hold globals up to it.
Macro::~Macro()
{
    stop();
}

void Macro::stop()
{
    m_running = false;
    wait();
}

int Macro::stackHeight() const
{
    return m_L ? lua_gettop(m_L) : -1;
}

void Macro::initLua()
{
    if (m_L || m_luaReady)
        return;
    m_L = luaL_newstate();
    if (!m_L)
        return;
    luaL_openlibs(m_L);
    lumbra::registerMacroGlobals(m_L);
    m_luaReady = true;
    // The thread stays on the main state's stack, which keeps it alive.
    if (!m_side)
        m_side = lua_newthread(m_L);
}

bool Macro::usable(lua_State *L) const
{
    if (L && lua_status(L) == LUA_OK)
        return true;
    zlog_error(g_zlog, "%s", kAbnormal);
    return false;
}

void Macro::execute(lua_State *L, const QString &text)
{
    const int top = lua_gettop(L);
    const QByteArray code = text.toUtf8();
    int rc = luaL_loadstring(L, code.constData());
    if (rc == LUA_OK)
        rc = lua_pcallk(L, 0, LUA_MULTRET, 0, 0, nullptr);
    if (rc != LUA_OK) {
        const char *msg = lua_type(L, -1) == LUA_TSTRING ? lua_tolstring(L, -1, nullptr) : nullptr;
        zlog_error(g_zlog, "%s", msg ? msg : "script error without a message");
    }
    // What a run leaves behind would pile up over years of cyclic runs.
    lua_settop(L, top);
}

void Macro::runLua(const QString &text)
{
    if (text.trimmed().isEmpty())
        return;
    initLua();
    if (usable(m_L))
        execute(m_L, text);
}

void Macro::runFromLua(const QString &text)
{
    if (text.trimmed().isEmpty())
        return;
    if (usable(m_side))
        execute(m_side, text);
}

int Macro::runLua(int id)
{
    initLua();
    return runStored(id, false);
}

int Macro::runFromLua(int id)
{
    return runStored(id, true);
}

int Macro::runStored(int id, bool side)
{
    auto it = m_texts.constFind(id);
    if (it == m_texts.constEnd())
        return 0;
    const QString text = it.value();
    setMacroSaveBitFlag(QString::number(id));
    if (!m_saveBitValues.isEmpty() && m_saveBitValues.contains(id) && m_saveBitValues.value(id) == 0)
        return 0;
    lua_State *L = side ? m_side : m_L;
    if (usable(L))
        execute(L, text);
    return 1;
}

void Macro::setMacroSaveBitFlag(const QString &ids)
{
    for (const QString &part : ids.split(',', Qt::SkipEmptyParts)) {
        const int id = part.trimmed().toInt();
        auto it = m_saveBitAddrs.constFind(id);
        if (it == m_saveBitAddrs.constEnd())
            continue;
        const AddressInfo &a = it.value();
        uchar value[2] = {0, 0};
        communication::getInstance()->getCommValue(a.link, a.reg, a.index, a.station, 1, value, sizeof value);
        m_saveBitValues[id] = value[0];
    }
}

void Macro::dealGetdataAddress(const QStringList &texts)
{
    QStringList calls;
    for (const QString &text : texts) {
        const QString code = claerComment(text);
        for (int pos = code.indexOf("getdata"); pos >= 0; pos = code.indexOf("getdata", pos)) {
            const int close = code.indexOf(')', pos);
            if (close < 0)
                break;
            calls << code.mid(pos + 8, close - (pos + 8));
            pos = close + 1;
        }
    }
    QStringList keys;
    for (const QString &call : calls) {
        QStringList parts = QString(call).remove('"').split(',', Qt::SkipEmptyParts);
        const QString reg = parts.size() > 1 ? parts[1].trimmed() : QString();
        if (reg == "LB" || reg == "LW" || reg == "RWI")
            continue;
        if (parts.size() < 6) {
            zlog_error(g_zlog, "macro getdata err:%s", local8(call).constData());
            continue;
        }
        for (QString &p : parts)
            p = p.trimmed();
        // A table to fill is a variable name here; its first element at least is polled.
        int length = qMax(1, parts[4].toInt());
        if (parts.last().contains("DATA_TYPE_D"))
            length *= 2;
        const QString key = QString("%1,%2,%3,%4,%5,%6")
                                .arg(parts[0], parts[1], parts[2], parts[3])
                                .arg(length)
                                .arg(parts.last());
        if (!keys.contains(key))
            keys << key;
    }
    for (const QString &key : keys)
        addGetdataKey(key);
}

void Macro::addGetdataKey(const QString &key)
{
    const QStringList f = key.split(',');
    if (f.size() <= 5)
        return;
    AddressInfo a;
    a.link = f[0];
    a.reg = f[1];
    a.addr = f[2];
    a.station = f[3].toInt();
    a.length = f[4].toInt();
    a.type = 0;
    for (size_t i = 0; i < DATA_TYPE_COUNT; ++i)
        if (f[5] == DATA_TYPE[i])
            a.type = static_cast<int>(i);
    const int mode = f[5] == "DATA_TYPE_BIT" ? 0 : 1;
    a.index = communication::getInstance()->getIndexFromAddr(a.link, a.reg, a.addr, a.station, mode);
    for (const AddressInfo &known : m_externalAddrs)
        if (known.link == a.link && known.reg == a.reg && known.addr == a.addr && known.station == a.station &&
            known.length == a.length && known.type == a.type)
            return;
    m_externalAddrs << a;
}

void Macro::externalAddr()
{
    for (const AddressInfo &a : qAsConst(m_externalAddrs))
        zlog_debug(g_zlog, "link:%s reg:%s sta:%d len:%d str_addr:%s dataTYpe:%d intaddr:%d",
                   local8(a.link).constData(), local8(a.reg).constData(), a.station, a.length,
                   local8(a.addr).constData(), a.type, a.index);
    lumbra::registerExternalAddrs(m_externalAddrs, EXTERNAL_ADDR_MACRO);
}

void Macro::clearTables()
{
    m_cycleIds.clear();
    m_saveBitValues.clear();
    m_saveBitAddrs.clear();
    m_texts.clear();
    m_cycleTimes.clear();
    m_lastRuns.clear();
    m_spare.clear();
    m_externalAddrs.clear();
    m_runOnce.clear();
}

// Returns false when the file gave no usable document; the reason is logged.
bool Macro::readScripts(QJsonArray *items)
{
    QFile file(kConfigPath);
    if (!file.exists()) {
        zlog_info(g_zlog, "%s No such file", kConfigPath);
        return false;
    }
    if (!file.open(QIODevice::ReadOnly)) {
        zlog_info(g_zlog, "%s open fail", kConfigPath);
        return false;
    }
    QJsonParseError error;
    const QJsonDocument doc = QJsonDocument::fromJson(file.readAll(), &error);
    if (error.error != QJsonParseError::NoError)
        zlog_info(g_zlog, "json parse fail [%s]", local8(error.errorString()).constData());
    if (doc.isNull()) {
        zlog_info(g_zlog, "json parse null");
        return false;
    }
    *items = doc.object().value("data").toArray();
    return true;
}

void Macro::loadScript(const QJsonObject &item, QStringList &texts)
{
    const int type = lumbra::jsonInt(item.value("type"));
    const int cycle = lumbra::jsonInt(item.value("cycly_time"));
    const int id = scriptId(item);
    const QString text = item.value("text").toString();
    if (lumbra::jsonInt(item.value("flag")) == 0) {
        zlog_error(g_zlog, "IOT macro verification fail");
        return;
    }
    if (lumbra::jsonInt(item.value("save_bit_address_flag")) != 0) {
        m_saveBitValues[id] = 0;
        const AddressInfo a = lumbra::addressFromJson(item.value("save_bit_address").toObject(), VALUE_BIT);
        m_saveBitAddrs[id] = a;
        if (communication::getLocalIndex(a.reg) == -1)
            m_externalAddrs << a;
    }
    texts << text;
    m_texts[id] = text;
    if (type == 1) {
        m_runOnce << text;
    } else if (type == 2) {
        m_cycleIds << id;
        m_cycleTimes << cycle;
        m_lastRuns << QTime::currentTime();
    }
}

void Macro::init()
{
    zlog_debug(g_zlog, "Macro init begin");
    QStringList texts;
    {
        QMutexLocker lock(&m_mutex);
        clearTables();
        QJsonArray items;
        if (!readScripts(&items)) {
            lock.unlock();
            // Whatever scripts registered before must stop being polled.
            externalAddr();
            return;
        }
        for (const QJsonValue &v : items)
            loadScript(v.toObject(), texts);
    }
    dealGetdataAddress(texts);
    // Also when empty: a reload that drops every getdata call drops its polling.
    externalAddr();
    if (!m_started)
        for (const QString &text : qAsConst(m_runOnce))
            runLua(text);
    m_started = true;
    startOrStopThread();
    zlog_debug(g_zlog, "Macro init end");
}

void Macro::startOrStopThread()
{
    if (m_cycleIds.isEmpty()) {
        m_running = false;
        return;
    }
    if (m_running)
        return;
    // A thread told to end may still be finishing its pass.
    wait();
    m_running = true;
    start();
}

void Macro::setConfigFile(const QString &message)
{
    // The platform's online edits name a script by "script_id"; the file by "id".
    QJsonDocument doc = QJsonDocument::fromJson(message.toUtf8());
    QJsonObject body = doc.object();
    QJsonArray items = body.value("data").toArray();
    for (int i = 0; i < items.size(); ++i) {
        QJsonObject item = items[i].toObject();
        if (!item.contains("id") && item.contains("script_id"))
            item.insert("id", item.value("script_id"));
        items[i] = item;
    }
    if (doc.isObject() && body.contains("data")) {
        body.insert("data", items);
        doc.setObject(body);
    }
    lumbra::EditOptions options;
    options.upsert = true;
    options.createMissing = true;
    const QString edit = doc.isObject() ? QString::fromUtf8(doc.toJson(QJsonDocument::Compact)) : message;
    lumbra::editConfigFile(kConfigPath, kEditTexts, edit, "id", "id", options);
}

void Macro::runPass()
{
    for (int i = 0; i < m_cycleIds.size(); ++i) {
        const QTime now = QTime::currentTime();
        const int elapsed = m_lastRuns[i].msecsTo(now);
        // A negative span is the clock passing midnight (or set back): run.
        if (elapsed >= 0 && elapsed < m_cycleTimes[i])
            continue;
        m_lastRuns[i] = now;
        runLua(m_cycleIds[i]);
    }
}

void Macro::run()
{
    zlog_debug(g_zlog, "Macro thread start");
    while (m_running) {
        {
            QMutexLocker lock(&m_mutex);
            runPass();
        }
        unitTool::delay_ms(50);
    }
    zlog_debug(g_zlog, "Macro thread end");
}
