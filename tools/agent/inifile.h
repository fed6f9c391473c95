// A small INI reader: "[section]" headers, "key = value" lines, comment lines
// starting with ';' or '#'. Values are kept verbatim (trimmed, one pair of
// surrounding double quotes removed), so a password may hold ';', '#', ','
// or '=' without the escaping QSettings would want.
#pragma once

#include <QMap>
#include <QPair>
#include <QString>
#include <QStringList>

namespace agent {

class IniFile {
public:
    using Key = QPair<QString, QString>;  // section, key (both as written)

    // False when the file cannot be read; *error says why.
    bool load(const QString &path, QString *error);
    // Parses text directly; what load does after reading.
    void parse(const QString &text);

    const QMap<Key, QString> &values() const { return m_values; }
    // Lines that are neither headers, pairs nor comments, as "line N: text".
    const QStringList &problems() const { return m_problems; }

private:
    QMap<Key, QString> m_values;
    QStringList m_problems;
};

}  // namespace agent
