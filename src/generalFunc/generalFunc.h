// Small stateless helpers used across the gateway.
#pragma once

#include <QString>
#include <QStringList>
#include <QVariant>
#include <cstdint>

// Value type codes of raw buffers handed between the link layer and services.
enum ValueType {
    VALUE_BIT = -1,
    VALUE_U16 = 0,
    VALUE_U32 = 1,
    VALUE_S16 = 2,
    VALUE_S32 = 3,
    VALUE_BCD16 = 4,
    VALUE_BCD32 = 5,
    VALUE_FLOAT = 6,
    VALUE_STRING = 7,
};

class unitTool {
public:
    static int my_zlog_init();

    // Runs command through the shell. With out, captures its output into out
    // (zero-filled, at most outSize - 1 bytes). Returns the exit status, or -1
    // when it could not run or ended by a signal.
    static int execute_command(const char *command, char *out, unsigned outSize);
    static int execute_system_command(const char *command);

    static QVariant GetIniValue(const QString &key, const QString &iniPath);
    // line > 0: that line (from 1), trimmed; otherwise the whole file, trimmed.
    static QString ReadFile(const QString &path, int line);

    static QString value2str(const uint8_t *data, int length, int type, int decimal);
    // The number held by an integer or float buffer (types 0 to 3 and 6);
    // false for other types or a buffer too short for the type.
    static bool rawNumber(const uint8_t *data, int length, int type, double &value);
    static double setZoom(double value, int decimal, int type, double k, double b, bool enable);

    static int cultimezone();
    static int delay_ms(int ms);
    static QString IotVersion();
    static int CheckProcessNum(const QString &name);
    static void deleteFilesInDirExcept(const QString &dir, const QStringList &keep);
    static QString culMd5Sum(const QString &path);
    // s as one shell word: in single quotes, inner quotes escaped.
    static QString shellQuote(const QString &s);
};
