#include "generalFunc.h"

#include "boxpath.h"
#include "globals.h"

#include <QDir>
#include <QFile>
#include <QRegularExpression>
#include <QSettings>
#include <QTextStream>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <sys/select.h>
#include <sys/wait.h>

namespace {

template <typename T>
bool readRaw(const uint8_t *data, int length, T &value)
{
    if (!data || length < static_cast<int>(sizeof(T)))
        return false;
    std::memcpy(&value, data, sizeof(T));  // buffers carry no alignment promise
    return true;
}

// The value of an integer code, widened; false when the buffer is too short.
bool readInteger(const uint8_t *data, int length, int type, double &value)
{
    switch (type) {
    case VALUE_U16: { uint16_t v; if (!readRaw(data, length, v)) return false; value = v; return true; }
    case VALUE_U32: { uint32_t v; if (!readRaw(data, length, v)) return false; value = v; return true; }
    case VALUE_S16: { int16_t v; if (!readRaw(data, length, v)) return false; value = v; return true; }
    case VALUE_S32: { int32_t v; if (!readRaw(data, length, v)) return false; value = v; return true; }
    }
    return false;
}

QString integerText(double value, int type, int decimal)
{
    if (decimal <= 0)
        return QString::number(static_cast<qint64>(value));
    return QString::number(unitTool::setZoom(value, decimal, type, 0, 0, false), 'f', decimal);
}

// Splits command output at blanks, dropping empty parts.
QStringList words(const char *text)
{
    static const QRegularExpression blanks("\\s+");
    return QString::fromLocal8Bit(text).split(blanks, Qt::SkipEmptyParts);
}

}  // namespace

QString unitTool::shellQuote(const QString &s)
{
    QString quoted = s;
    quoted.replace('\'', "'\\''");
    return '\'' + quoted + '\'';
}

int unitTool::my_zlog_init()
{
    int rc = zlog_init("./zlog.conf");
    if (rc != 0)
        printf("zlog init failed\n");
    g_zlog = zlog_get_category("iot");
    if (!g_zlog) {
        printf("zlog category failed\n");
        return -2;
    }
    fflush(stdout);
    return rc;
}

int unitTool::execute_command(const char *command, char *out, unsigned outSize)
{
    if (out && outSize > 0)
        std::memset(out, 0, outSize);
    FILE *pipe = popen(command, "r");
    if (!pipe) {
        zlog_error(g_zlog, "Unable to execute command:%s", command);
        return -1;
    }
    char line[1035];
    size_t used = 0;
    while (fgets(line, sizeof line, pipe)) {
        if (!out)
            continue;
        size_t len = std::strlen(line);
        if (used + len >= outSize) {
            zlog_error(g_zlog, "Output exceeds buffer size");
            break;
        }
        std::memcpy(out + used, line, len);
        used += len;
    }
    int status = pclose(pipe);
    int result = (status == -1 || WIFSIGNALED(status)) ? -1 : WEXITSTATUS(status);
    if (result != 0)
        zlog_error(g_zlog, "Unable to execute command:%s cmdResult:%d", command, result);
    return result;
}

int unitTool::execute_system_command(const char *command)
{
    int status = system(command);
    if (status == -1) {
        perror("system");
        zlog_error(g_zlog, "Unable to execute command:%s", command);
        return -1;
    }
    if (WIFSIGNALED(status)) {
        zlog_error(g_zlog, "Unable to execute command:%s", command);
        return -1;
    }
    return WEXITSTATUS(status);
}

QVariant unitTool::GetIniValue(const QString &key, const QString &iniPath)
{
    if (!QFile::exists(iniPath))
        return QVariant();
    QSettings ini(iniPath, QSettings::IniFormat);
    QVariant value = ini.value(key);
    // An unquoted comma makes QSettings hand back a list; the file meant text.
    if (value.type() == QVariant::StringList)
        return value.toStringList().join(',');
    return value;
}

QString unitTool::ReadFile(const QString &path, int line)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        zlog_info(g_zlog, "read %s fail", path.toLocal8Bit().constData());
        return QString();
    }
    QTextStream in(&file);
    if (line <= 0)
        return in.readAll().trimmed();
    QString text;
    for (int i = 1; i <= line && !in.atEnd(); ++i) {
        text = in.readLine();
        if (i == line)
            return text.trimmed();
    }
    return QString();
}

QString unitTool::value2str(const uint8_t *data, int length, int type, int decimal)
{
    double integer = 0;
    switch (type) {
    case VALUE_BIT:
        if (!data || length < 1)
            return QString();
        return data[0] ? "1" : "0";
    case VALUE_U16:
    case VALUE_U32:
    case VALUE_S16:
    case VALUE_S32:
        if (!readInteger(data, length, type, integer))
            return QString();
        return integerText(integer, type, decimal);
    case VALUE_BCD16:
    case VALUE_BCD32: {
        uint32_t word;
        if (!readRaw(data, length, word))
            return QString();
        // A nibble above 9 means the word holds no valid BCD.
        for (uint32_t w = word; w; w >>= 4)
            if ((w & 0xF) > 9)
                return QStringLiteral("0");
        return QString::number(word, 16);
    }
    case VALUE_FLOAT: {
        float f;
        if (!readRaw(data, length, f))
            return QString();
        return QString::number(f, 'f', decimal < 0 ? 0 : decimal);
    }
    case VALUE_STRING:
        if (!data || length <= 0)
            return QString();
        return QString::fromUtf8(reinterpret_cast<const char *>(data),
                                 static_cast<int>(strnlen(reinterpret_cast<const char *>(data), length)));
    }
    return QString();
}

bool unitTool::rawNumber(const uint8_t *data, int length, int type, double &value)
{
    if (type != VALUE_FLOAT)
        return readInteger(data, length, type, value);
    float f;
    if (!readRaw(data, length, f))
        return false;
    value = f;
    return true;
}

double unitTool::setZoom(double value, int decimal, int type, double k, double b, bool enable)
{
    double result = enable ? value * k + b : value;
    if (decimal == 0)
        return result;
    if (static_cast<unsigned>(type) <= 5)
        result /= std::pow(10.0, decimal);
    return result;
}

int unitTool::cultimezone()
{
    int offset = 28800;
    QFile file("./timeZone");
    if (file.open(QIODevice::ReadOnly)) {
        bool ok = false;
        int value = QString::fromUtf8(file.readAll()).trimmed().toInt(&ok, 10);
        if (ok)
            offset = value;
    }
    zlog_info(g_zlog, "timezone:%d", offset);
    return offset;
}

int unitTool::delay_ms(int ms)
{
    if (ms <= 0)
        return 0;
    struct timeval tv;
    tv.tv_sec = ms / 1000;
    tv.tv_usec = (ms % 1000) * 1000;
    // Linux leaves the remaining time in tv, so a signal does not cut the delay short.
    while (tv.tv_sec > 0 || tv.tv_usec > 0) {
        if (select(0, nullptr, nullptr, nullptr, &tv) == 0 || errno != EINTR)
            break;
    }
    return 0;
}

QString unitTool::IotVersion()
{
    QVariant v = GetIniValue("version", lumbra::boxPath("/usr/brenta/iot_work/iot_config.ini"));
    QString text = v.toString().trimmed();
    return text.isEmpty() ? QStringLiteral("3.0.0") : text;
}

int unitTool::CheckProcessNum(const QString &name)
{
    char out[128];
    QByteArray cmd = QStringLiteral("pidof %1").arg(shellQuote(name)).toLocal8Bit();
    execute_command(cmd.constData(), out, sizeof out);
    return words(out).size();
}

void unitTool::deleteFilesInDirExcept(const QString &dir, const QStringList &keep)
{
    const QStringList names = QDir(dir).entryList(QDir::Files | QDir::Hidden | QDir::System);
    for (const QString &name : names) {
        if (!keep.contains(name, Qt::CaseSensitive))
            QFile::remove(dir + "/" + name);
    }
}

QString unitTool::culMd5Sum(const QString &path)
{
    if (!QFile::exists(path)) {
        zlog_error(g_zlog, "md5 file %s no exist", path.toLocal8Bit().constData());
        return QString();
    }
    char out[1024];
    QByteArray cmd = QStringLiteral("md5sum %1").arg(shellQuote(path)).toLocal8Bit();
    execute_command(cmd.constData(), out, sizeof out);
    QString text = QString::fromLocal8Bit(out).trimmed();
    QStringList parts = words(out);
    if (parts.size() < 2)
        return QString();
    // The name md5sum echoes back may hold blanks, so compare everything after the sum.
    QString echoed = text.mid(parts.first().size()).trimmed();
    return echoed == path ? parts.first().trimmed() : QString();
}
