#include "SoftwareOpt.h"

#include "Outbox/Outbox.h"
#include "deviceInfo/deviceInfo.h"
#include "generalFunc/boxpath.h"
#include "generalFunc/generalFunc.h"
#include "generalFunc/globals.h"
#include "generalFunc/jsonvalue.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QUrl>

#include <curl/curl.h>
#include <memory>

using lumbra::jsonText;

namespace {

const char kAckTopic[] = "/DevSend/SoftwareOperationAck";
const char kDownloadDir[] = "./iotRunTime/download/";
const char kPackage[] = "/tmp/universal.zip";
const char kUpdateScript[] = "/usr/brenta/shell/universal.sh";
const char kDownload[] = "DOWNLOAD";
const char kUpdate[] = "UPDATE";
const char kDownloadFail[] = "DOWNLOAD_FAIL";
const char kUpdateFail[] = "UPDATE_FAIL";
const int kIdleSeconds = 90;
const int kMaxNameLength = 255;

QByteArray local8(const QString &s)
{
    return s.toLocal8Bit();
}

// The name ends up in a local path and in shell commands, so it has to stay
// one harmless path component.
bool isPlainName(const QString &name)
{
    if (name.isEmpty() || name.size() > kMaxNameLength || name.startsWith('.') || name.contains(".."))
        return false;
    for (const QChar c : name)
        if (!c.isLetterOrNumber() && !QStringLiteral("._-+").contains(c))
            return false;
    return true;
}

// Empties the directory but keeps it: the box may have made it a link to
// larger storage.
bool clearDownloadDir()
{
    const QFileInfoList entries = QDir(kDownloadDir).entryInfoList(QDir::AllEntries | QDir::NoDotAndDotDot |
                                                                   QDir::Hidden | QDir::System);
    for (const QFileInfo &e : entries) {
        const bool gone = e.isDir() && !e.isSymLink() ? QDir(e.filePath()).removeRecursively()
                                                       : QFile::remove(e.filePath());
        if (!gone)
            zlog_error(g_zlog, "remove %s fail", local8(e.filePath()).constData());
    }
    if (!QDir().mkpath(kDownloadDir)) {
        zlog_error(g_zlog, "mkdir %s fail", kDownloadDir);
        return false;
    }
    return true;
}

// "host:port" and a server path as an FTP URL; invalid when the server text
// is anything but a host and an optional port.
QUrl ftpUrl(const QString &server, const QString &remotePath)
{
    QUrl url(QStringLiteral("ftp://%1/").arg(server), QUrl::StrictMode);
    if (!url.isValid() || url.host().isEmpty() || !url.userInfo().isEmpty() || url.path() != "/")
        return QUrl();
    url.setPath('/' + remotePath, QUrl::DecodedMode);
    return url;
}

void addField(QByteArray &out, const char *key, const QString &value)
{
    out += out.isEmpty() ? "{\"" : ",\"";
    out += key;
    out += "\":";
    lumbra::appendJsonString(out, value);
}

struct CurlGlobal {
    CurlGlobal() : ok(curl_global_init(CURL_GLOBAL_DEFAULT) == CURLE_OK) {}
    ~CurlGlobal()
    {
        if (ok)
            curl_global_cleanup();
    }
    const bool ok;
};

struct CurlCleanup {
    void operator()(CURL *c) const { curl_easy_cleanup(c); }
};

// The local file of one transfer. Unbuffered, so that a failing write shows
// in the write callback's count, where curl sees it, and not later in fclose.
class OutFile {
public:
    explicit OutFile(const QString &path) : m_file(fopen(QFile::encodeName(path).constData(), "wb"))
    {
        if (m_file)
            setvbuf(m_file, nullptr, _IONBF, 0);
    }
    ~OutFile() { close(); }
    OutFile(const OutFile &) = delete;
    OutFile &operator=(const OutFile &) = delete;
    FILE *get() const { return m_file; }
    bool close()
    {
        FILE *f = m_file;
        m_file = nullptr;
        return !f || fclose(f) == 0;
    }

private:
    FILE *m_file;
};

size_t writeBlock(char *data, size_t size, size_t nmemb, void *file)
{
    return SoftwareOpt::filewrite_data(data, size, nmemb, static_cast<FILE *>(file));
}

// Non-zero ends the transfer, so that stop() need not wait out a slow server.
int abortRequested(void *flag, curl_off_t, curl_off_t, curl_off_t, curl_off_t)
{
    return static_cast<std::atomic<bool> *>(flag)->load() ? 1 : 0;
}

}  // namespace

SoftwareOpt *SoftwareOpt::getInstance()
{
    static SoftwareOpt instance;
    return &instance;
}

// A static instance outlives main(); its thread must be gone by then.
SoftwareOpt::~SoftwareOpt()
{
    stop();
}

void SoftwareOpt::stop()
{
    m_abort = true;
    wait();
}

bool SoftwareOpt::parseRequest(const QString &message, Request *out)
{
    QJsonParseError error;
    const QJsonDocument doc = QJsonDocument::fromJson(message.toUtf8(), &error);
    if (error.error != QJsonParseError::NoError || !doc.isObject())
        return false;
    const QJsonObject o = doc.object();
    out->devOperationType = jsonText(o.value("devOperationType"));
    out->ip = jsonText(o.value("ip")).trimmed();
    out->port = jsonText(o.value("port")).trimmed();
    out->devSoftwareType = jsonText(o.value("devSoftwareType"));
    out->account = {jsonText(o.value("username")), jsonText(o.value("pwd"))};
    const QJsonObject version = o.value("softwareVersionResponse").toObject();
    out->updateContent = jsonText(version.value("updateContent"));
    out->fileSize = version.value("fileSize").toDouble();
    out->softwareVersion = jsonText(version.value("softwareVersion"));
    for (const QJsonValue &v : version.value("fileList").toArray()) {
        const QJsonObject f = v.toObject();
        out->files.append({jsonText(f.value("fileName")), jsonText(f.value("filePath")),
                           jsonText(f.value("fileCheckCode")).trimmed()});
    }
    return true;
}

int SoftwareOpt::execOpt(const QString &message)
{
    Request req;
    if (!parseRequest(message, &req)) {
        zlog_error(g_zlog, "parse fail:%s", local8(message).constData());
        return -1;
    }
    // Not the whole text: a well-formed request carries the FTP password.
    if (req.devOperationType != kDownload && req.devOperationType != kUpdate) {
        zlog_error(g_zlog, "devOperationType unknown:%s", local8(req.devOperationType).constData());
        return -1;
    }
    QMutexLocker lock(&m_startLock);
    if (isRunning()) {
        zlog_info(g_zlog, "isRunning");
        return 0;
    }
    m_req = req;
    m_abort = false;
    start();
    return 0;
}

void SoftwareOpt::run()
{
    zlog_info(g_zlog, "software operation %s of %s, version %s, %d file(s)",
              local8(m_req.devOperationType).constData(), local8(m_req.devSoftwareType).constData(),
              local8(m_req.softwareVersion).constData(), static_cast<int>(m_req.files.size()));
    if (m_req.devOperationType == kDownload)
        runDownload();
    else
        runUpdate();
}

void SoftwareOpt::sendAck(const QString &sn, const QString &softwareType, const QString &operationType,
                          const QString &state)
{
    QByteArray text;
    addField(text, "sn_code", sn);
    addField(text, "devSoftwareType", softwareType);
    addField(text, "devOperationType", operationType);
    addField(text, "state", state);
    text += '}';
    Outbox::getInstance()->post(kAckTopic, QString::fromUtf8(text), false, 0, Outbox::Ordered);
}

void SoftwareOpt::report(const QString &state)
{
    zlog_debug(g_zlog, "software operation state:%s", local8(state).constData());
    sendAck(deviceInfo::getInstance()->sn(), m_req.devSoftwareType, m_req.devOperationType, state);
}

bool SoftwareOpt::namesArePlain(const char *failState)
{
    if (m_req.files.isEmpty()) {
        zlog_error(g_zlog, "fileList empty");
        report(failState);
        return false;
    }
    for (const filePath_t &f : m_req.files) {
        if (!isPlainName(f.fileName)) {
            zlog_error(g_zlog, "fileName refused:%s", local8(f.fileName).constData());
            report(failState);
            return false;
        }
    }
    return true;
}

void SoftwareOpt::runDownload()
{
    if (!namesArePlain(kDownloadFail))
        return;
    if (!clearDownloadDir()) {
        report(kDownloadFail);
        return;
    }
    report("DOWNLOADING");
    for (const filePath_t &file : m_req.files) {
        if (!downloadFile(file)) {
            // What did arrive is unchecked or incomplete: a later UPDATE must
            // not find it.
            clearDownloadDir();
            report(kDownloadFail);
            return;
        }
    }
    report("DOWNLOAD_SUCCESS");
    zlog_info(g_zlog, "DOWNLOAD_SUCCESS");
}

bool SoftwareOpt::downloadFile(const filePath_t &file)
{
    const QString server = QStringLiteral("%1:%2").arg(m_req.ip, m_req.port);
    const QString local = kDownloadDir + file.fileName;
    const int rc = download(server, file.filePath, local, m_req.account, kIdleSeconds);
    zlog_info(g_zlog, "%s download:%d", local8(file.fileName).constData(), rc);
    return rc == 1 && matchesCheckCode(local, file);
}

bool SoftwareOpt::matchesCheckCode(const QString &local, const filePath_t &file)
{
    const QString md5 = unitTool::culMd5Sum(local);
    if (md5.isEmpty() || md5.compare(file.fileCheckCode, Qt::CaseInsensitive) != 0) {
        zlog_error(g_zlog, "fileCheckCode:%s md5:%s", local8(file.fileCheckCode).constData(),
                   local8(md5).constData());
        return false;
    }
    return true;
}

int SoftwareOpt::download(const QString &server, const QString &remotePath, const QString &localPath,
                          const Account &account, int idleSeconds)
{
    const QUrl url = ftpUrl(server, remotePath);
    if (!url.isValid()) {
        zlog_error(g_zlog, "ftp server refused:%s", local8(server).constData());
        return -1;
    }
    CurlGlobal global;
    std::unique_ptr<CURL, CurlCleanup> curl(global.ok ? curl_easy_init() : nullptr);
    if (!curl) {
        zlog_error(g_zlog, "curl init fail");
        return -1;
    }
    OutFile file(localPath);
    if (!file.get()) {
        zlog_error(g_zlog, "Failed to open file %s for writing", local8(localPath).constData());
        return -1;
    }
    const QByteArray urlText = url.toEncoded();
    const QByteArray user = account.username.toUtf8();
    const QByteArray pwd = account.pwd.toUtf8();
    char why[CURL_ERROR_SIZE] = {0};
    CURL *c = curl.get();
    curl_easy_setopt(c, CURLOPT_URL, urlText.constData());
    curl_easy_setopt(c, CURLOPT_WRITEDATA, file.get());
    curl_easy_setopt(c, CURLOPT_WRITEFUNCTION, &writeBlock);
    curl_easy_setopt(c, CURLOPT_PROTOCOLS_STR, "ftp");
    // Separate options, not the URL, so that any character of the account
    // works and the password never shows in a logged URL.
    if (!user.isEmpty()) {
        curl_easy_setopt(c, CURLOPT_USERNAME, user.constData());
        curl_easy_setopt(c, CURLOPT_PASSWORD, pwd.constData());
    }
    // A package over a slow mobile link may take long; only silence fails it.
    curl_easy_setopt(c, CURLOPT_CONNECTTIMEOUT, long(idleSeconds));
    curl_easy_setopt(c, CURLOPT_SERVER_RESPONSE_TIMEOUT, long(idleSeconds));
    curl_easy_setopt(c, CURLOPT_LOW_SPEED_LIMIT, 1L);
    curl_easy_setopt(c, CURLOPT_LOW_SPEED_TIME, long(idleSeconds));
    curl_easy_setopt(c, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(c, CURLOPT_NOPROGRESS, 0L);
    curl_easy_setopt(c, CURLOPT_XFERINFOFUNCTION, &abortRequested);
    curl_easy_setopt(c, CURLOPT_XFERINFODATA, &m_abort);
    curl_easy_setopt(c, CURLOPT_ERRORBUFFER, why);
    const CURLcode rc = curl_easy_perform(c);
    const bool closed = file.close();
    if (rc != CURLE_OK) {
        zlog_error(g_zlog, "ftp download err:%d", static_cast<int>(rc));
        zlog_info(g_zlog, "ftp %s: %s", url.toDisplayString().toLocal8Bit().constData(),
                  why[0] ? why : curl_easy_strerror(rc));
        return -1;
    }
    if (!closed) {
        zlog_error(g_zlog, "write %s fail", local8(localPath).constData());
        return -1;
    }
    return 1;
}

// A short count makes curl fail the transfer: a full disk must not pass for
// a finished download.
size_t SoftwareOpt::filewrite_data(void *buffer, size_t size, size_t nmemb, FILE *stream)
{
    return fwrite(buffer, 1, size * nmemb, stream);
}

void SoftwareOpt::runUpdate()
{
    report("UPDATEING");
    if (!namesArePlain(kUpdateFail))
        return;
    // All files first: half a package installed is worse than none.
    for (const filePath_t &file : m_req.files) {
        const QString local = kDownloadDir + file.fileName;
        if (!QFileInfo(local).isFile()) {
            zlog_error(g_zlog, "%s No such file", local8(local).constData());
            report(kUpdateFail);
            return;
        }
        // The file on disk may be another package's (an earlier DOWNLOAD) or
        // damaged since: install only what this request names.
        if (!matchesCheckCode(local, file)) {
            report(kUpdateFail);
            return;
        }
    }
    for (const filePath_t &file : m_req.files) {
        if (!installFile(file)) {
            report(kUpdateFail);
            return;
        }
    }
    report("UPDATE_SUCCESS");
    zlog_info(g_zlog, "UPDATE_SUCCESS");
    // The agent needs a moment to publish the report before the box goes down.
    unitTool::delay_ms(1000);
    unitTool::execute_system_command("reboot");
}

bool SoftwareOpt::installFile(const filePath_t &file)
{
    const QString local = kDownloadDir + file.fileName;
    const QString package = lumbra::boxPath(kPackage);
    // QFile::copy never overwrites, and a package left from an earlier run
    // must not be installed in place of this one.
    QFile::remove(package);
    if (!QFile::copy(local, package)) {
        zlog_error(g_zlog, "file copy fail %s --> /tmp/universal.zip", local8(local).constData());
        return false;
    }
    QFile::remove(local);
    const QByteArray command = local8(unitTool::shellQuote(lumbra::boxPath(kUpdateScript)));
    const int rc = unitTool::execute_system_command(command.constData());
    if (rc != 0) {
        zlog_error(g_zlog, "update script exit:%d for %s", rc, local8(file.fileName).constData());
        return false;
    }
    return true;
}
