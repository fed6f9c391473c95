#include "communication.h"

#include "generalFunc/globals.h"
#include "linkconfig.h"
#include "src/ulinkthread.h"


namespace {

QByteArray local8(const QString &s)
{
    return s.toLocal8Bit();
}

}  // namespace

// Never destroyed: link threads and their sockets must not be torn down
// during static destruction, after the application object is gone.
communication *communication::getInstance()
{
    static communication *instance = new communication;
    return instance;
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
    QString list = link.station_no_comm;
    for (QChar &c : list)
        if (c == ';' || c.isSpace())
            c = ',';
    for (const QString &part : list.split(',', Qt::SkipEmptyParts)) {
        bool ok = false;
        int station = part.toInt(&ok);
        if (!ok || station < 0 || station > 255) {
            zlog_info(g_zlog, "link:%s station_no_comm \"%s\" is no station, ignored", local8(link.linkName).constData(),
                      local8(part).constData());
            continue;
        }
        if (!m_shielded.contains(shieldKey(link.id, station)))
            m_shielded.append(shieldKey(link.id, station));
    }
}

void communication::initLinks()
{
    readLinkConfig();
    const QList<LinkValue> links = linkValues();
    for (const LinkValue &link : links) {
        auto thread = std::make_shared<ULinkThread>(link.id);
        int rc = thread->InitLink(link, valueChangedCallback(), &communication::_linkErrorCallBack);
        zlog_info(g_zlog, "InitLink Ret:%d", rc);
        QWriteLocker lock(&m_lock);
        m_threads.append(thread);
    }
}

void communication::stopLinks()
{
    QList<LinkThreadPtr> threads;
    {
        QWriteLocker lock(&m_lock);
        threads.swap(m_threads);
        m_links.clear();
        m_shielded.clear();
        m_externalEnabled = false;
    }
    // All at once rather than one after the other; a thread that has ended
    // holds no reference to itself, so the last one goes here.
    for (const LinkThreadPtr &t : threads)
        t->stop();
    for (const LinkThreadPtr &t : threads)
        t->wait();
}

int communication::getLocalValue(int index, int addr, int len, uchar *data)
{
    return m_local.get(index, addr, len, data);
}

int communication::setLocalValue(int index, int addr, int len, const uchar *data)
{
    return m_local.set(index, addr, len, data);
}

communication::LinkThreadPtr communication::threadByName(const QString &name) const
{
    QReadLocker lock(&m_lock);
    for (const LinkThreadPtr &t : m_threads)
        if (t->getLinkName() == name)
            return t;
    return nullptr;
}

communication::LinkThreadPtr communication::threadById(int id) const
{
    QReadLocker lock(&m_lock);
    for (const LinkThreadPtr &t : m_threads)
        if (t->getLinkID() == id)
            return t;
    return nullptr;
}

int communication::stationFor(const ULinkThread &thread, int station, bool *shielded) const
{
    QReadLocker lock(&m_lock);
    if (station < 0)
        station = thread.getLinkPro().plc_id;
    *shielded = !m_shielded.isEmpty() && m_shielded.contains(shieldKey(thread.getLinkID(), station));
    return station;
}

communication::LinkThreadPtr communication::valueTarget(const QString &link, int *station, bool *shielded) const
{
    QReadLocker lock(&m_lock);
    for (const LinkThreadPtr &t : m_threads) {
        if (t->linkName() != link)
            continue;
        if (*station < 0)
            *station = t->defaultStation();
        *shielded = !m_shielded.isEmpty() && m_shielded.contains(shieldKey(t->getLinkID(), *station));
        return t;
    }
    return nullptr;
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
    LinkThreadPtr t = threadByName(name);
    return t ? t->getLinkPro() : LinkValue();
}

LinkValue communication::getLinkById(int id) const
{
    LinkThreadPtr t = threadById(id);
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
    LinkThreadPtr t = threadByName(link);
    return t ? t->getAddrIndexFromStr(reg, addr, station, mode) : -1;
}

int communication::suspendLink(const QString &name, bool suspend)
{
    LinkThreadPtr t = threadByName(name);
    if (!t)
        return 0;
    t->setSupend(suspend);
    return 1;
}

int communication::spendStation(const QString &link, int station)
{
    return shieldStation(link, station, true);
}

int communication::startStation(const QString &link, int station)
{
    return shieldStation(link, station, false);
}

// The driver polls what it was given last, so a change re-merges the link.
int communication::shieldStation(const QString &link, int station, bool shield)
{
    LinkThreadPtr t = threadByName(link);
    if (!t || station < 0 || station > 255)
        return 0;
    const int key = shieldKey(t->getLinkID(), station);
    {
        QWriteLocker lock(&m_lock);
        if (shield == m_shielded.contains(key))
            return 1;
        if (shield)
            m_shielded.append(key);
        else
            m_shielded.removeAll(key);
    }
    mergeIfEnabled(t);
    return 1;
}

QList<int> communication::staShieldList() const
{
    QReadLocker lock(&m_lock);
    return m_shielded;
}

int communication::resetLinkFromID(int id)
{
    LinkThreadPtr t = threadById(id);
    return t ? t->lLinkReset() : -1;
}

int communication::statusLinkFromID(int id)
{
    LinkThreadPtr t = threadById(id);
    return t ? t->lLinkStatus() : -1;
}

int communication::lLinkSendFromID(const QByteArray &data, int len, int id)
{
    LinkThreadPtr t = threadById(id);
    return t ? t->lLinkSend(data, len) : -1;
}

int communication::lLinkReadFromID(QByteArray &data, unsigned maxLen, int id, int timeoutMs)
{
    LinkThreadPtr t = threadById(id);
    return t ? t->lLinkRead(data, maxLen, timeoutMs) : -1;
}

int communication::exeuteFuncFromID(int id, QVariant &arg)
{
    LinkThreadPtr t = threadById(id);
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
        for (const LinkThreadPtr &t : m_threads)
            lv.id = qMax(lv.id, t->getLinkID() + 1);
    }
    lv.linkName = QString("free_port_%1").arg(lv.id);
    lv.link_driver = "free_protocol";
    zlog_info(g_zlog, "LinkID:%d type:%s m_baudRate:%d", lv.id, local8(lv.linkType).constData(),
              static_cast<int>(lv.baudrate));
    auto thread = std::make_shared<ULinkThread>(lv.id);
    if (thread->InitLink(lv, valueChangedCallback(), &communication::_linkErrorCallBack) != 0)
        zlog_info(g_zlog, "iRet:-1");
    QWriteLocker lock(&m_lock);
    m_links.append(lv);
    m_threads.append(thread);
    return lv.id;
}

int communication::close_freePort(int id)
{
    LinkThreadPtr thread;
    {
        QWriteLocker lock(&m_lock);
        for (int i = 0; i < m_threads.size() && !thread; ++i) {
            if (m_threads[i]->getLinkID() == id && m_threads[i]->getLinkPro().link_driver == "free_protocol")
                thread = m_threads.takeAt(i);
        }
        if (!thread) {
            zlog_info(g_zlog, "close free port %d: no such free link", id);
            return -1;
        }
        for (int i = m_links.size() - 1; i >= 0; --i)
            if (m_links[i].id == id)
                m_links.removeAt(i);
    }
    thread->stop();
    thread->wait();
    zlog_info(g_zlog, "free port %d closed", id);
    return 1;  // the port goes with the last reference to the thread
}

void communication::mergeLink(const LinkThreadPtr &thread)
{
    std::vector<KEY_ADDRESS> list = m_external.forLink(thread->getLinkName());
    const size_t registered = list.size();
    auto polled = list.begin();
    for (KEY_ADDRESS k : list) {
        bool shielded = false;
        stationFor(*thread, k.station, &shielded);
        if (shielded)
            continue;
        k.index = registeredIndex(*thread, k);
        *polled++ = k;
    }
    list.erase(polled, list.end());
    int rc = thread->AddressMerge(list);
    zlog_info(g_zlog, "link:%s polls %d addresses (merge:%d, %d of shielded stations left out)",
              local8(thread->getLinkName()).constData(), static_cast<int>(list.size()), rc,
              static_cast<int>(registered - list.size()));
}

int communication::registeredIndex(ULinkThread &thread, const KEY_ADDRESS &k)
{
    return k.index >= 0 ? k.index : thread.getAddrIndexFromStr(k.reg, k.addr, k.station, k.len == 1 ? 0 : 1);
}

QStringList communication::linksWithoutFirstPoll() const
{
    QList<LinkThreadPtr> threads;
    bool enabled = false;
    {
        QReadLocker lock(&m_lock);
        threads = m_threads;
        enabled = m_externalEnabled;
    }
    QStringList out;
    for (const LinkThreadPtr &t : threads)
        if (!enabled || !firstPollDone(*t))
            out << t->getLinkName();
    return out;
}

bool communication::firstPollDone(ULinkThread &thread) const
{
    // Slaves and servers answer requests; they poll nothing.
    const LinkValue link = thread.getLinkPro();
    if (!thread.hasDriver() || thread.isSuspended() || link.master_or_slave == 1 || link.link_driver == "free_protocol")
        return true;
    QByteArray scratch;
    for (const KEY_ADDRESS &k : m_external.forLink(thread.getLinkName())) {
        bool shielded = false;
        const int station = stationFor(thread, k.station, &shielded);
        const int index = registeredIndex(thread, k);
        if (shielded || index < 0)
            continue;
        scratch.resize(2 * qMax(1, k.len));
        int quality = LUMBRA_QUALITY_NOT_READ;
        uchar *data = reinterpret_cast<uchar *>(scratch.data());
        if (thread.GetValue(station, k.reg, index, qMax(1, k.len), LUMBRA_KIND_RAW, data, scratch.size(), &quality) >= 0 &&
            quality == LUMBRA_QUALITY_NOT_READ)
            return false;
    }
    return true;
}

void communication::mergeAllIfEnabled()
{
    QList<LinkThreadPtr> threads;
    {
        QReadLocker lock(&m_lock);
        if (!m_externalEnabled)
            return;
        threads = m_threads;
    }
    for (const LinkThreadPtr &t : threads)
        mergeLink(t);
}

void communication::mergeIfEnabled(const LinkThreadPtr &thread)
{
    {
        QReadLocker lock(&m_lock);
        if (!m_externalEnabled)
            return;
    }
    mergeLink(thread);
}

void communication::setExternalAddrInfo(const QList<ExternalAddr> &list, int type)
{
    setExternalAddrs(list.toVector(), type);
}

void communication::setExternalAddrs(QVector<ExternalAddr> list, int type)
{
    m_external.set(type, std::move(list));
    // Once polling is on, a service that registers again changes it at once.
    mergeAllIfEnabled();
}

void communication::setExternalAddrInfo(const QList<KEY_ADDRESS> &list, int type)
{
    QVector<ExternalAddr> addrs;
    addrs.reserve(list.size());
    for (const KEY_ADDRESS &k : list)
        addrs.append(ExternalAddrTable::makeAddr(fullLinkName(k.link), QString::fromUtf8(k.reg),
                                                 QString::fromUtf8(k.addr), k.station, k.len, k.type, k.index));
    setExternalAddrs(std::move(addrs), type);
}

QString communication::fullLinkName(const char *name) const
{
    const QByteArray cut(name, static_cast<int>(qstrnlen(name, LUMBRA_LINK_NAME_SIZE)));
    if (cut.size() < LUMBRA_LINK_NAME_SIZE - 1)
        return QString::fromUtf8(cut);
    QString found;
    QReadLocker lock(&m_lock);
    for (const LinkValue &l : m_links) {
        if (!l.linkName.toUtf8().startsWith(cut))
            continue;
        if (!found.isEmpty())
            return QString::fromUtf8(cut);  // two links start alike: neither is meant for sure
        found = l.linkName;
    }
    return found.isEmpty() ? QString::fromUtf8(cut) : found;
}

void communication::enableExternalAddrInfo(bool enable)
{
    {
        QWriteLocker lock(&m_lock);
        m_externalEnabled = enable;
    }
    mergeAllIfEnabled();
}

// A change report costs the driver a comparison per polled value and a call
// per changed one; all the link manager does with it is a DEBUG line, so
// drivers are asked for reports only while such lines are written.
communication::ValueChangedCB communication::valueChangedCallback()
{
    return zlog_level_enabled(g_zlog, ZLOG_LEVEL_DEBUG) ? &communication::_linkValueChangedCB : nullptr;
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
