#include "communication.h"

#include "generalFunc/generalFunc.h"
#include "generalFunc/globals.h"
#include "linkconfig.h"
#include "src/ulinkthread.h"

#include <QRegularExpression>

namespace {

QByteArray local8(const QString &s)
{
    return s.toLocal8Bit();
}

}  // namespace

communication *communication::getInstance()
{
    static communication instance;
    return &instance;
}

void communication::readLinkConfig()
{
    QList<LinkValue> links;
    lumbra::readLinkValues(links);
    QWriteLocker lock(&m_lock);
    m_links = links;
    for (const LinkValue &l : links)
        addShieldedStations(l);
}

// "station_no_comm" lists stations, separated by commas or blanks, that the
// link must leave alone.
void communication::addShieldedStations(const LinkValue &link)
{
    static const QRegularExpression sep("[,;\\s]+");
    for (const QString &part : link.station_no_comm.split(sep, Qt::SkipEmptyParts)) {
        bool ok = false;
        int station = part.toInt(&ok);
        if (ok && station >= 0 && station <= 255 && !m_shielded.contains(station + link.id * 256))
            m_shielded.append(station + link.id * 256);
    }
}

void communication::initLinks()
{
    readLinkConfig();
    const QList<LinkValue> links = linkValues();
    for (const LinkValue &link : links) {
        auto *thread = new ULinkThread(link.id);
        int rc = thread->InitLink(link, &communication::_linkValueChangedCB, &communication::_linkErrorCallBack);
        zlog_info(g_zlog, "InitLink Ret:%d", rc);
        QWriteLocker lock(&m_lock);
        m_threads.append(thread);
    }
}

void communication::stopLinks()
{
    QList<ULinkThread *> threads;
    {
        QWriteLocker lock(&m_lock);
        threads.swap(m_threads);
        m_links.clear();
        m_shielded.clear();
        m_externalEnabled = false;
    }
    qDeleteAll(threads);  // each destructor stops and joins its thread
}

int communication::getLocalValue(int index, int addr, int len, uchar *data)
{
    return m_local.get(index, addr, len, data);
}

int communication::setLocalValue(int index, int addr, int len, const uchar *data)
{
    return m_local.set(index, addr, len, data);
}

ULinkThread *communication::threadByName(const QString &name) const
{
    QReadLocker lock(&m_lock);
    for (ULinkThread *t : m_threads)
        if (t->getLinkName() == name)
            return t;
    return nullptr;
}

ULinkThread *communication::threadById(int id) const
{
    QReadLocker lock(&m_lock);
    for (ULinkThread *t : m_threads)
        if (t->getLinkID() == id)
            return t;
    return nullptr;
}

// The station to use and its shield key; -1 when the station is shielded.
int communication::stationFor(const ULinkThread *thread, int station, int &key) const
{
    if (station < 0)
        station = thread->getLinkPro().plc_id;
    key = station + thread->getLinkID() * 256;
    QReadLocker lock(&m_lock);
    return m_shielded.contains(key) ? -1 : station;
}

// Cells of a local area that fit into dataSize bytes: a length configured
// beyond the caller's buffer must not run past it.
static int localCells(int area, int len, int dataSize)
{
    if (dataSize < 0)
        return len;
    return qMin(len, area == LocalRegisters::LB ? dataSize : dataSize / 2);
}

int communication::getCommValue(const QString &link, const QString &reg, int addr, int station, int len,
                                uchar *data, int dataSize, int, int *)
{
    int local = getLocalIndex(reg);
    if (local >= 0)
        return m_local.get(local, addr, localCells(local, len, dataSize), data);
    ULinkThread *t = threadByName(link);
    int key = 0;
    if (!t || !data || len <= 0 || (station = stationFor(t, station, key)) < 0)
        return -1;
    return t->GetValue(station, reg, addr, len, data, dataSize >= 0 ? dataSize : 2 * len);
}

int communication::setCommValue(const QString &link, const QString &reg, int addr, int station, int len,
                                const uchar *data, int dataSize, int, QString *)
{
    int local = getLocalIndex(reg);
    if (local >= 0)
        return m_local.set(local, addr, localCells(local, len, dataSize), data);
    ULinkThread *t = threadByName(link);
    int key = 0;
    if (!t || !data || len <= 0)
        return -1;
    if ((station = stationFor(t, station, key)) < 0) {
        zlog_debug(g_zlog, "link:%s station key %d shielded, write dropped", local8(link).constData(), key);
        return -1;
    }
    return t->SetValue(station, reg, addr, len, data, dataSize >= 0 ? dataSize : 2 * len);
}

int communication::kindOf(int valueType)
{
    switch (valueType) {
    case VALUE_BIT: return LUMBRA_KIND_BIT;
    case VALUE_U16:
    case VALUE_S16:
    case VALUE_BCD16: return LUMBRA_KIND_16BIT;
    case VALUE_U32:
    case VALUE_S32:
    case VALUE_BCD32:
    case VALUE_FLOAT: return LUMBRA_KIND_32BIT;
    case VALUE_STRING: return LUMBRA_KIND_STRING;
    default: return LUMBRA_KIND_RAW;
    }
}

int communication::getIndexFromName(const QString &name) const
{
    QReadLocker lock(&m_lock);
    for (int i = 0; i < m_threads.size(); ++i)
        if (m_threads[i]->getLinkName() == name)
            return i;
    return -1;
}

int communication::getIndexFromID(int id) const
{
    QReadLocker lock(&m_lock);
    for (int i = 0; i < m_threads.size(); ++i)
        if (m_threads[i]->getLinkID() == id)
            return i;
    return -1;
}

LinkValue communication::getLinkByName(const QString &name) const
{
    ULinkThread *t = threadByName(name);
    return t ? t->getLinkPro() : LinkValue();
}

LinkValue communication::getLinkById(int id) const
{
    ULinkThread *t = threadById(id);
    return t ? t->getLinkPro() : LinkValue();
}

QList<LinkValue> communication::linkValues() const
{
    QReadLocker lock(&m_lock);
    return m_links;
}

int communication::getIndexFromAddr(const QString &link, const QString &reg, const QString &addr, int station,
                                    int mode)
{
    int local = getLocalIndex(reg);
    if (local >= 0) {
        bool ok = false;
        int cell = addr.section('.', 0, 0).trimmed().toInt(&ok);
        return ok && LocalRegisters::inRange(local, cell, 1) ? cell : -1;
    }
    ULinkThread *t = threadByName(link);
    return t ? t->getAddrIndexFromStr(reg, addr, station, mode) : -1;
}

int communication::suspendLink(const QString &name, bool suspend)
{
    ULinkThread *t = threadByName(name);
    if (!t)
        return 0;
    t->setSupend(suspend);
    return 1;
}

int communication::spendStation(const QString &link, int station)
{
    ULinkThread *t = threadByName(link);
    if (!t || station < 0 || station > 255)
        return 0;
    int key = station + t->getLinkID() * 256;
    QWriteLocker lock(&m_lock);
    if (!m_shielded.contains(key))
        m_shielded.append(key);
    return 1;
}

int communication::startStation(const QString &link, int station)
{
    ULinkThread *t = threadByName(link);
    if (!t)
        return 0;
    QWriteLocker lock(&m_lock);
    m_shielded.removeAll(station + t->getLinkID() * 256);
    return 1;
}

QList<int> communication::staShieldList() const
{
    QReadLocker lock(&m_lock);
    return m_shielded;
}

int communication::resetLinkFromID(int id)
{
    ULinkThread *t = threadById(id);
    return t ? t->lLinkReset() : -1;
}

int communication::statusLinkFromID(int id)
{
    ULinkThread *t = threadById(id);
    return t ? t->lLinkStatus() : -1;
}

int communication::lLinkSendFromID(const QByteArray &data, int len, int id)
{
    ULinkThread *t = threadById(id);
    return t ? t->lLinkSend(data, len) : -1;
}

int communication::lLinkReadFromID(QByteArray &data, unsigned maxLen, int id, int timeoutMs)
{
    ULinkThread *t = threadById(id);
    return t ? t->lLinkRead(data, maxLen, timeoutMs) : -1;
}

int communication::exeuteFuncFromID(int id, QVariant &arg)
{
    ULinkThread *t = threadById(id);
    QVariantList list = arg.toList();
    if (!t || list.size() < 2)
        return -1;
    int value = list[1].toInt();
    int rc = t->setFunc(list[0].toInt(), &value);
    list[1] = value;
    arg = list;
    return rc;
}

int communication::create_freePort(const LinkValue *link)
{
    if (!link)
        return -1;
    LinkValue lv = *link;
    {
        QReadLocker lock(&m_lock);
        lv.id = m_links.size();
        for (ULinkThread *t : m_threads)
            lv.id = qMax(lv.id, t->getLinkID() + 1);
    }
    lv.linkName = QString("free_port_%1").arg(lv.id);
    lv.link_driver = "free_protocol";
    zlog_info(g_zlog, "LinkID:%d type:%s m_baudRate:%d", lv.id, local8(lv.linkType).constData(),
              static_cast<int>(lv.baudrate));
    auto *thread = new ULinkThread(lv.id);
    if (thread->InitLink(lv, &communication::_linkValueChangedCB, &communication::_linkErrorCallBack) != 0)
        zlog_info(g_zlog, "iRet:-1");
    QWriteLocker lock(&m_lock);
    m_links.append(lv);
    m_threads.append(thread);
    return lv.id;
}

void communication::mergeLink(ULinkThread *thread)
{
    QList<KEY_ADDRESS> list = m_external.forLink(thread->getLinkName());
    for (KEY_ADDRESS &k : list) {
        if (k.index < 0)
            k.index = thread->getAddrIndexFromStr(k.reg, k.addr, k.station, k.len == 1 ? 0 : 1);
    }
    int rc = thread->AddressMerge(list);
    zlog_info(g_zlog, "link:%s polls %d addresses (merge:%d)", local8(thread->getLinkName()).constData(),
              static_cast<int>(list.size()), rc);
}

void communication::mergeAllIfEnabled()
{
    QList<ULinkThread *> threads;
    {
        QReadLocker lock(&m_lock);
        if (!m_externalEnabled)
            return;
        threads = m_threads;
    }
    for (ULinkThread *t : threads)
        mergeLink(t);
}

void communication::setExternalAddrInfo(const QList<KEY_ADDRESS> &list, int type)
{
    m_external.set(type, list);
    // Once polling is on, a service that registers again changes it at once.
    mergeAllIfEnabled();
}

void communication::enableExternalAddrInfo(bool enable)
{
    {
        QWriteLocker lock(&m_lock);
        m_externalEnabled = enable;
    }
    mergeAllIfEnabled();
}

void communication::_linkValueChangedCB(int linkId, int station, QString reg, int index)
{
    zlog_debug(g_zlog, "link:%d station:%d reg:%s index:%d changed", linkId, station, local8(reg).constData(),
               index);
}

void communication::_linkErrorCallBack(int linkId, int code, QString text)
{
    QString name = getInstance()->getLinkById(linkId).linkName;
    switch (code) {
    case ULinkThread::LinkFailed:
        zlog_info(g_zlog, "link:%s communication failed", local8(name).constData());
        break;
    case ULinkThread::LinkRecovered:
        zlog_info(g_zlog, "link:%s communicating", local8(name).constData());
        break;
    case ULinkThread::StationFailed:
        zlog_info(g_zlog, "link:%s station:%s failed", local8(name).constData(), local8(text).constData());
        break;
    case ULinkThread::StationRecovered:
        zlog_info(g_zlog, "link:%s station:%s communicating", local8(name).constData(), local8(text).constData());
        break;
    }
}
