#include "clinkdriver.h"

#include "generalFunc/globals.h"

#include <QHash>
#include <QReadWriteLock>

#include <atomic>
#include <optional>
#include <vector>

namespace {

std::atomic<CLinkDriver::ValueChangedCB> s_valueChanged{nullptr};

// Link names by link id, for the drivers' log lines.
struct LinkNames {
    QReadWriteLock lock;
    QHash<int, QByteArray> names;
};

LinkNames &linkNames()
{
    static LinkNames names;
    return names;
}

QByteArray linkNameOf(int linkId)
{
    LinkNames &n = linkNames();
    QReadLocker lock(&n.lock);
    QByteArray name = n.names.value(linkId);
    return name.isEmpty() ? "#" + QByteArray::number(linkId) : name;
}

// The driver limits its repeats itself; every line it gives is written.
void logTrampoline(int linkId, int level, const char *text)
{
    const QByteArray name = linkNameOf(linkId);
    const char *line = text ? text : "";
    switch (level) {
    case LUMBRA_LOG_DEBUG:
        zlog_debug(g_zlog, "link:%s %s", name.constData(), line);
        break;
    case LUMBRA_LOG_WARN:
        zlog_warn(g_zlog, "link:%s %s", name.constData(), line);
        break;
    case LUMBRA_LOG_ERROR:
        zlog_error(g_zlog, "link:%s %s", name.constData(), line);
        break;
    default:
        zlog_info(g_zlog, "link:%s %s", name.constData(), line);
        break;
    }
}

// A register name as drivers take it. Every value read passes one, so the
// short ASCII names that registers have are converted without a heap copy.
class RegName {
public:
    explicit RegName(const QString &reg)
    {
        const int n = reg.size();
        int i = 0;
        if (n < static_cast<int>(sizeof m_short))
            for (; i < n && reg.at(i).unicode() < 0x80; ++i)
                m_short[i] = static_cast<char>(reg.at(i).unicode());
        if (i == n && n < static_cast<int>(sizeof m_short))
            m_short[n] = '\0';
        else
            m_long = reg.toUtf8();
    }
    const char *c_str() const { return m_long.isNull() ? m_short : m_long.constData(); }

private:
    char m_short[LUMBRA_REG_NAME_SIZE];
    QByteArray m_long;
};

// Drivers speak C; the gateway's callback takes a QString.
void valueChangedTrampoline(int linkId, int station, const char *reg, int index)
{
    CLinkDriver::ValueChangedCB cb = s_valueChanged.load();
    if (cb)
        cb(linkId, station, QString::fromUtf8(reg ? reg : ""), index);
}

}  // namespace

CLinkDriver::~CLinkDriver()
{
    if (m_lib.isLoaded())
        m_lib.unload();
}

template <typename T>
void CLinkDriver::resolve(T &fn, const char *name)
{
    fn = reinterpret_cast<T>(m_lib.resolve(name));
}

bool CLinkDriver::loadDriver(const QString &path, ValueChangedCB valueChangedCB)
{
    m_lib.setFileName(path);
    if (!m_lib.load()) {
        zlog_error(g_zlog, "driver:%s load failed", path.toLocal8Bit().constData());
        zlog_error(g_zlog, "%s", m_lib.errorString().toLocal8Bit().constData());
        return false;
    }
    m_path = path;
    resolve(m_getSendFrame, "intf_getSendFrame");
    resolve(m_dealRcvFrame, "intf_dealRcvFrame");
    resolve(m_getData, "intf_getData");
    resolve(m_setData, "intf_setData");
    resolve(m_initProperty, "intf_initProperty");
    resolve(m_mpiInit, "intf_mpiInit");
    resolve(m_mpiDeal, "intf_mpiDeal");
    resolve(m_setAddrValueChangeCallBack, "intf_setAddrValueChangeCallBack");
    resolve(m_setDriverPropertyPage, "intf_SetDriverPropertyPage");
    resolve(m_addConditionRead, "intf_addConditionRead");
    resolve(m_addrMerge, "intf_addrMerge");
    resolve(m_addrMergeOfOrder, "intf_addrMergeOfOrder");
    resolve(m_checkAddrValidity, "intf_checkAddrValidity");
    resolve(m_setRcpAddress, "intf_setRcpAddress");
    resolve(m_setDisconnect, "inft_setDisconnect");
    resolve(m_setS7SmartRun, "intf_setS7_Smart_Run");
    resolve(m_setStation, "intf_setStation");
    resolve(m_setFunc, "intf_setFunc");
    resolve(m_getValue, "intf_getValue");
    resolve(m_setValue, "intf_setValue");
    resolve(m_writeState, "intf_writeState");
    resolve(m_cancelWrite, "intf_cancelWrite");
    resolve(m_setLogCallBack, "intf_setLogCallBack");
    resolve(m_abiVersion, "intf_abiVersion");
    if (m_setLogCallBack)
        m_setLogCallBack(logTrampoline);
    if (m_setAddrValueChangeCallBack && valueChangedCB) {
        s_valueChanged.store(valueChangedCB);
        m_setAddrValueChangeCallBack(valueChangedTrampoline);
    }
    return true;
}

int CLinkDriver::InitProperty(uchar *info, uchar *reserved1, uchar *reserved2, int &infoSize, char *text,
                              QMutex *mutex)
{
    QMutexLocker lock(&m_mutex);
    return m_initProperty ? m_initProperty(info, reserved1, reserved2, &infoSize, text, mutex) : -1;
}

int CLinkDriver::SetDriverPropertyPage(const QString &property)
{
    QMutexLocker lock(&m_mutex);
    return m_setDriverPropertyPage ? m_setDriverPropertyPage(property.toUtf8().constData()) : -1;
}

int CLinkDriver::mpiInit(char *text, int a, int b, int c, int d, int e, int f)
{
    QMutexLocker lock(&m_mutex);
    return m_mpiInit ? m_mpiInit(text, a, b, c, d, e, f) : -1;
}

int CLinkDriver::mpiDeal()
{
    QMutexLocker lock(&m_mutex);
    return m_mpiDeal ? m_mpiDeal() : -1;
}

int CLinkDriver::SetValue(int station, const QString &reg, int addr, int count, const uchar *data, int len)
{
    QMutexLocker lock(&m_mutex);
    return m_setData ? m_setData(station, RegName(reg).c_str(), addr, count, data, len) : -1;
}

int CLinkDriver::GetValue(int station, const QString &reg, int addr, int count, uchar *data, int len)
{
    QMutexLocker lock(&m_mutex);
    return m_getData ? m_getData(station, RegName(reg).c_str(), addr, count, data, len) : -1;
}

int CLinkDriver::GetValue(int station, const QString &reg, int addr, int count, int kind, uchar *data, int len,
                          int *quality)
{
    int q = LUMBRA_QUALITY_NOT_READ;
    int rc = -1;
    {
        const RegName name(reg);
        QMutexLocker lock(&m_mutex);
        if (m_getValue)
            rc = m_getValue(station, name.c_str(), addr, count, kind, data, len, &q);
        else if (m_getData && (rc = m_getData(station, name.c_str(), addr, count, data, len)) == 1)
            q = LUMBRA_QUALITY_GOOD;
    }
    if (quality)
        *quality = q;
    return rc;
}

// The register name is converted once for a run of reads that name the
// same one, which is what a service's points mostly do.
void CLinkDriver::GetValues(ValueRead *reads, int n)
{
    std::optional<RegName> name;
    const QString *named = nullptr;
    QMutexLocker lock(&m_mutex);
    for (int i = 0; i < n; ++i) {
        ValueRead &r = reads[i];
        // Shared texts, mostly: the same characters are the same name.
        if (!named || (r.reg->constData() != named->constData() && *r.reg != *named)) {
            name.emplace(*r.reg);
            named = r.reg;
        }
        r.quality = LUMBRA_QUALITY_NOT_READ;
        if (m_getValue)
            r.rc = m_getValue(r.station, name->c_str(), r.addr, r.count, r.kind, r.data, r.len, &r.quality);
        else if (m_getData && (r.rc = m_getData(r.station, name->c_str(), r.addr, r.count, r.data, r.len)) == 1)
            r.quality = LUMBRA_QUALITY_GOOD;
        else if (!m_getData)
            r.rc = -1;
    }
}

int CLinkDriver::SetValue(int station, const QString &reg, int addr, int count, int kind, const uchar *data,
                          int len, int *ticket)
{
    int t = 0;
    int rc = -1;
    {
        const RegName name(reg);
        QMutexLocker lock(&m_mutex);
        if (m_setValue)
            rc = m_setValue(station, name.c_str(), addr, count, kind, data, len, &t);
        else if (m_setData)
            rc = m_setData(station, name.c_str(), addr, count, data, len);
    }
    if (ticket)
        *ticket = rc == 1 && m_setValue ? qMax(t, 0) : 0;
    return rc == 1 ? 1 : -1;
}

int CLinkDriver::WriteState(int ticket, QString *why)
{
    char text[128] = {0};
    int state = LUMBRA_WRITE_DONE;
    {
        QMutexLocker lock(&m_mutex);
        if (m_writeState)
            state = m_writeState(ticket, text, sizeof text);
    }
    text[sizeof text - 1] = '\0';
    if (why)
        *why = QString::fromUtf8(text);
    return state;
}

void CLinkDriver::CancelWrite(int ticket)
{
    QMutexLocker lock(&m_mutex);
    if (m_cancelWrite)
        m_cancelWrite(ticket);
}

void CLinkDriver::setLinkName(int linkId, const QString &name)
{
    LinkNames &n = linkNames();
    QWriteLocker lock(&n.lock);
    n.names.insert(linkId, name.toUtf8());
}

// Deliberately without the lock: drivers use it for calls that may come from
// inside their own callbacks.
int CLinkDriver::SetFunc(int id, void *arg)
{
    return m_setFunc ? m_setFunc(id, arg) : -1;
}

void CLinkDriver::SetDisconnect()
{
    if (m_setDisconnect)
        m_setDisconnect();
}

int CLinkDriver::DealRecvFrame(const QByteArray &frame, QString &text)
{
    QMutexLocker lock(&m_mutex);
    if (!m_dealRcvFrame)
        return -1;
    char buf[256] = {0};
    int rc = m_dealRcvFrame(reinterpret_cast<const unsigned char *>(frame.constData()), frame.size(), buf,
                            sizeof buf);
    buf[sizeof buf - 1] = '\0';
    text = QString::fromUtf8(buf);
    return rc;
}

int CLinkDriver::GetSendFrame(FRAME_PRO &frame)
{
    QMutexLocker lock(&m_mutex);
    return m_getSendFrame ? m_getSendFrame(&frame) : -1;
}

// The driver may fill in indexes, so the list comes back as it left it.
int CLinkDriver::AddressMerge(std::vector<KEY_ADDRESS> &list)
{
    QMutexLocker lock(&m_mutex);
    if (!m_addrMerge)
        return -1;
    return m_addrMerge(list.empty() ? nullptr : list.data(), static_cast<int>(list.size()));
}

int CLinkDriver::AddConditionRead(const KEY_ADDRESS *list, int count)
{
    QMutexLocker lock(&m_mutex);
    return m_addConditionRead ? m_addConditionRead(list, count) : -1;
}

int CLinkDriver::CheckAddressValidity(const QString &reg, const QString &addr, int &index, int station, int mode)
{
    QMutexLocker lock(&m_mutex);
    if (!m_checkAddrValidity)
        return -1;
    return m_checkAddrValidity(reg.toUtf8().constData(), addr.toUtf8().constData(), &index, station, mode);
}
