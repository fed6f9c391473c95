// The real-time data service: reads the configured points through the link
// manager once a second, turns them into text and uploads them to the cloud,
// every cycle or only what changed.
#pragma once

#include "device_comm/addressinfo.h"
#include "device_comm/communication.h"
#include "generalFunc/generalFunc.h"
#include "generalFunc/sleeper.h"
#include "valuetext.h"

#include <QJsonObject>
#include <QMap>
#include <QMutex>
#include <QString>
#include <QThread>

#include <atomic>
#include <vector>

class RealData : public QThread {
    Q_OBJECT
public:
    // The numbers together, then the texts: no padding between them, in a
    // record kept for each of tens of thousands of points.
    struct DataCfg_t {
        int code = 0;
        int dataType = 0;
        int displayType = 0;
        int writeable = 0;
        int totalDigits = 0;
        int decimalDigits = 0;
        int dealType = 0;
        bool good = false;  // value is what the device sent on its last read
        bool passGood = false;
        ValueText value;  // the last good value's text; empty before the first
        // As they were at the last upload pass: what "changed" compares with,
        // now that points are read every second and uploaded less often.
        ValueText passValue;
        QString name;
        QString maxValue;
        QString minValue;
        QString zoomRatio;
        QString zoomOffset;
        AddressInfo addr;
    };

    static RealData *getInstance();
    ~RealData() override;

    // Loads "./iotRunTime/RealTimeConfiguration.json", registers the points'
    // addresses and starts the once-a-second upload.
    void init();
    // init() without starting the thread: false when there is nothing to run.
    bool load();
    // Ends the thread after its current second; for an orderly end and tests.
    void stop();

    // One read-format-send pass; changedOnly leaves out points whose text did
    // not change.
    void uploadData(bool changedOnly);
    // The read, format and serialise part of a pass: the message text in
    // UTF-8, or empty when there is nothing to send.
    QByteArray rtdMessage(bool changedOnly);
    // The point's text, only while it is good (what the device sent on its
    // last read).
    bool GetDataByCode(const int &code, QString &out);
    // The point's last good text (empty before the first), whether the
    // last read confirmed it and its value type; false for an unknown code.
    bool pointState(int code, QString *value, bool *good, int *dataType = nullptr);
    // Passes that read the points since start: every second, whatever the
    // upload interval, while there are readers between uploads (forwarding
    // clients) that must see the values current; otherwise once an upload.
    quint64 passes() const { return m_passes; }
    void setReadBetweenUploads(bool on) { m_readBetweenUploads = on; }
    QMap<int, DataCfg_t> &codeDataMap() { return m_points; }
    bool DataCfgOpt(const int &code, const DataCfg_t &cfg, const AddrOpt &op);
    bool externalAddr();
    // Applies an online add/modify/delete message to the configuration file.
    void setConfigFile(const QString &message);

    static double setZoom(const DataCfg_t &cfg, double raw);
    static double setWriteZoom(const DataCfg_t &cfg, double value);
    // A point record from one object of the file's "data" array, its address
    // resolved through the link manager.
    static DataCfg_t pointFromJson(const QJsonObject &item);
    // The text of a raw value read for cfg; old when the type has no text form.
    static QString formatValue(const DataCfg_t &cfg, const uchar *raw, int rawSize, const QString &old);
    // The text of the plain forms (bits, integers with fixed decimals) as
    // ASCII in text, which has kMaxAsciiText bytes: its length, or -1 for a
    // form formatValue alone writes. Both give the same text.
    static constexpr int kMaxAsciiText = 48;
    static int asciiText(const DataCfg_t &cfg, const uchar *raw, int rawSize, char *text);

    // Held by the service around each pass and each change of its map.
    QMutex &mutex() { return m_mutex; }
    void setUploadFunState(const bool &on);
    void setCompressed(const bool &on) { m_compressed = on; }
    void setUploadTime(const int &seconds) { m_uploadTime = seconds; }
    void setValueChange(const bool &on) { m_valueChange = on; }
    void setRefreshData(const bool &on) { m_refreshData = on; }
    bool uploadFunState() const { return m_uploadFunState; }
    bool compressed() const { return m_compressed; }
    int uploadTime() const { return m_uploadTime; }
    bool valueChange() const { return m_valueChange; }

protected:
    void run() override;

private:
    RealData() = default;
    void readSettings(const QJsonObject &root);
    void readBatch(DataCfg_t *const *points, int n, std::vector<uchar> &scratch,
                   std::vector<communication::ValueRead> &reads);
    // The point's text and state after its read.
    static void takeRead(DataCfg_t &cfg, const communication::ValueRead &read);
    // Called with m_mutex held: reads every point, then hands it to visit
    // while its run is fresh in the cache.
    template <class Visit>
    void readPoints(Visit &&visit);
    // The message of a pass appended to out, as the inside of a JSON string
    // when nested; false when there is nothing to send.
    bool appendMessage(QByteArray &out, bool changedOnly, bool nested);

    QMutex m_mutex;
    std::atomic<bool> m_uploadFunState{false};
    bool m_globalUploadSetting = false;
    std::atomic<int> m_uploadTime{0};
    std::atomic<bool> m_valueChange{false};
    std::atomic<bool> m_compressed{false};
    QMap<int, DataCfg_t> m_points;
    std::atomic<bool> m_running{false};
    lumbra::Sleeper m_sleeper;
    std::atomic<bool> m_refreshData{false};
    quint64 m_seenUps = 0;  // the cloud's up count at the last look
    std::atomic<quint64> m_passes{0};
    std::atomic<bool> m_readBetweenUploads{true};
    std::atomic<int> m_messageBytes{0};  // the last upload's size, to size the next
};
