// Loading the script file, its online edits, and the device addresses the
// scripts read. All of it runs on the caller's thread and never touches the
// interpreter.
#include "Macro.h"
#include "macrovalue.h"

#include "device_comm/addressjson.h"
#include "device_comm/communication.h"
#include "device_comm/externaladdrtable.h"
#include "generalFunc/configfile.h"
#include "generalFunc/generalFunc.h"
#include "generalFunc/globals.h"
#include "generalFunc/jsonvalue.h"

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>

namespace {

const char kConfigPath[] = "./iotRunTime/ScriptConfiguration.json";
const lumbra::ConfigFileTexts kEditTexts{"Macro config file no such", "Macro config file open fail",
                                         "Macro config parse fail"};

QByteArray local8(const QString &s)
{
    return s.toLocal8Bit();
}

int scriptId(const QJsonObject &item)
{
    return lumbra::jsonInt(item.contains("id") ? item.value("id") : item.value("script_id"));
}

// The six arguments of one written-out getdata call, or empty (logged) when
// the call names too few or reads a register of the gateway itself.
QStringList getdataArguments(const QString &call)
{
    QStringList parts = QString(call).remove('"').remove('\'').split(',', Qt::SkipEmptyParts);
    for (QString &p : parts)
        p = p.trimmed();
    const QString reg = parts.value(1);
    if (reg == "LB" || reg == "LW" || reg == "RWI")
        return {};
    if (parts.size() < 6) {
        zlog_error(g_zlog, "macro getdata err:%s", local8(call).constData());
        return {};
    }
    return parts;
}

AddressInfo getdataAddress(const QStringList &parts)
{
    AddressInfo a;
    a.link = parts[0];
    a.reg = parts[1];
    a.addr = parts[2];
    a.station = parts[3].toInt();
    // A table to fill is a variable name here; its first element at least is polled.
    a.length = qMax(1, parts[4].toInt());
    if (parts.last().contains("DATA_TYPE_D"))
        a.length *= 2;
    a.type = lumbra::macroTypeIndex(parts.last());
    const int mode = parts.last() == "DATA_TYPE_BIT" ? 0 : 1;
    a.index = communication::getInstance()->getIndexFromAddr(a.link, a.reg, a.addr, a.station, mode);
    return a;
}

}  // namespace

QString Macro::addressKey(const AddressInfo &a)
{
    return QString("%1\x1f%2\x1f%3\x1f%4\x1f%5").arg(a.link, a.reg).arg(a.index).arg(a.station).arg(a.length);
}

QList<AddressInfo> Macro::dealGetdataAddress(const QStringList &texts)
{
    QList<AddressInfo> found;
    QSet<QString> keys;
    for (const QString &text : texts) {
        const QString code = claerComment(text);
        for (int pos = code.indexOf("getdata"); pos >= 0; pos = code.indexOf("getdata", pos)) {
            const int close = code.indexOf(')', pos);
            if (close < 0)
                break;
            const QStringList parts = getdataArguments(code.mid(pos + 8, close - (pos + 8)));
            pos = close + 1;
            if (parts.isEmpty())
                continue;
            const AddressInfo a = getdataAddress(parts);
            const QString key = addressKey(a) + '\x1f' + a.addr;
            if (!keys.contains(key)) {
                keys.insert(key);
                found << a;
            }
        }
    }
    return found;
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

void Macro::loadScript(const QJsonObject &item, ScriptSet &set, QStringList &texts)
{
    const int id = scriptId(item);
    const QString text = item.value("text").toString();
    if (lumbra::jsonInt(item.value("flag")) == 0) {
        zlog_error(g_zlog, "IOT macro verification fail");
        return;
    }
    if (lumbra::jsonInt(item.value("save_bit_address_flag")) != 0) {
        const AddressInfo a = lumbra::addressFromJson(item.value("save_bit_address").toObject(), VALUE_BIT);
        set.saveBits[id] = a;
        if (communication::getLocalIndex(a.reg) == -1)
            set.addresses << a;
    }
    texts << text;
    set.texts[id] = text;
    const int type = lumbra::jsonInt(item.value("type"));
    if (type == 1)
        set.runOnce << id;
    else if (type == 2)
        set.cyclic << Cyclic{id, lumbra::jsonInt(item.value("cycly_time"))};
}

void Macro::init()
{
    zlog_debug(g_zlog, "Macro init begin");
    QMutexLocker reload(&m_initLock);
    auto set = std::make_shared<ScriptSet>();
    QJsonArray items;
    if (readScripts(&items)) {
        QStringList texts;
        for (const QJsonValue &v : items)
            loadScript(v.toObject(), *set, texts);
        set->addresses << dealGetdataAddress(texts);
    }
    for (const AddressInfo &a : qAsConst(set->addresses))
        zlog_debug(g_zlog, "link:%s reg:%s sta:%d len:%d str_addr:%s dataTYpe:%d intaddr:%d",
                   local8(a.link).constData(), local8(a.reg).constData(), a.station, a.length,
                   local8(a.addr).constData(), a.type, a.index);
    const lumbra::MacroSettings settings = lumbra::MacroSettings::fromBox();
    {
        QMutexLocker lock(&m_mutex);
        m_set = set;
        ++m_generation;
        // What scripts read at run time is learned again from the new texts.
        m_learned.clear();
        m_known.clear();
        for (const AddressInfo &a : qAsConst(set->addresses))
            m_known.insert(addressKey(a));
        m_settings = settings;
        m_initialised = true;
    }
    // Also when empty: a reload that drops every getdata call drops its polling.
    externalAddr();
    ensureRunning();
    {
        std::lock_guard<std::mutex> queue(m_queueLock);
        m_reloaded = true;
    }
    m_wake.notify_all();
    zlog_debug(g_zlog, "Macro init end");
}

QList<AddressInfo> Macro::externalAddrList() const
{
    QMutexLocker lock(&m_mutex);
    return m_set->addresses + m_learned;
}

void Macro::externalAddr()
{
    QMutexLocker order(&m_registerLock);
    lumbra::registerExternalAddrs(externalAddrList(), EXTERNAL_ADDR_MACRO);
}

bool Macro::learnAddress(const AddressInfo &a)
{
    if (a.index < 0 || communication::getLocalIndex(a.reg) != -1)
        return false;
    const QString key = addressKey(a);
    {
        QMutexLocker lock(&m_mutex);
        if (m_known.contains(key))
            return false;
        if (m_learned.size() >= kMaxLearned) {
            int held = 0;
            if (m_tooManyLearned.allow(&held))
                zlog_error(g_zlog, "scripts read more than %d addresses not written out in their text; "
                           "link:%s reg:%s addr:%s is not polled (%d more since the last line)",
                           kMaxLearned, local8(a.link).constData(), local8(a.reg).constData(),
                           local8(a.addr).constData(), held);
            return false;
        }
        m_learned << a;
        m_known.insert(key);
    }
    zlog_info(g_zlog, "script reads link:%s reg:%s addr:%s sta:%d len:%d: polled from now on",
              local8(a.link).constData(), local8(a.reg).constData(), local8(a.addr).constData(), a.station,
              a.length);
    externalAddr();
    return true;
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
