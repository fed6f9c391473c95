// Software operations ordered by the platform: fetch a package over FTP into
// "./iotRunTime/download/", check it, and install it through the box's update
// script, after which the box reboots. One operation runs at a time, on this
// object's thread; every state goes back on "/DevSend/SoftwareOperationAck".
#pragma once

#include <QList>
#include <QMutex>
#include <QString>
#include <QThread>

#include <atomic>
#include <cstdio>

class SoftwareOpt : public QThread {
    Q_OBJECT
public:
    struct filePath_t {
        QString fileName;       // plain name below the download directory
        QString filePath;       // path on the FTP server
        QString fileCheckCode;  // md5, hexadecimal
    };

    struct Account {
        QString username;
        QString pwd;
    };

    static SoftwareOpt *getInstance();
    ~SoftwareOpt() override;

    // Takes a "/DevRecv/SoftwareOperation" payload and starts the worker.
    // 0 when taken or refused because one runs; -1 when malformed.
    int execOpt(const QString &message);

    // Cancels a running transfer and waits for the worker; for an orderly end
    // and tests. An install that has begun is not cut short.
    void stop();

    // One FTP transfer of ftp://server/remotePath into localPath. idleSeconds
    // bounds connecting, each server reply and any stall of the data. Returns
    // 1 when the whole file arrived and was written, -1 otherwise.
    int download(const QString &server, const QString &remotePath, const QString &localPath,
                 const Account &account, int idleSeconds);

    static size_t filewrite_data(void *buffer, size_t size, size_t nmemb, FILE *stream);

    // One state report with the running request's identification.
    void sendAck(const QString &sn, const QString &softwareType, const QString &operationType,
                 const QString &state);

protected:
    void run() override;

private:
    struct Request {
        QString ip;
        QString port;
        QString devSoftwareType;
        QString devOperationType;
        Account account;
        QString updateContent;
        double fileSize = 0;
        QString softwareVersion;
        QList<filePath_t> files;
    };

    SoftwareOpt() = default;
    static bool parseRequest(const QString &message, Request *out);
    void report(const QString &state);
    void runDownload();
    bool downloadFile(const filePath_t &file);
    static bool matchesCheckCode(const QString &local, const filePath_t &file);
    void runUpdate();
    bool installFile(const filePath_t &file);
    bool namesArePlain(const char *failState);

    QMutex m_startLock;  // one start decision at a time
    Request m_req;       // written only while the worker is not running
    std::atomic<bool> m_abort{false};
};
