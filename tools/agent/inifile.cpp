#include "inifile.h"

#include <QFile>

namespace agent {

bool IniFile::load(const QString &path, QString *error)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        *error = file.errorString();
        return false;
    }
    parse(QString::fromUtf8(file.readAll()));
    return true;
}

void IniFile::parse(const QString &text)
{
    QString section;
    const QStringList lines = text.split('\n');
    for (int i = 0; i < lines.size(); ++i) {
        const QString line = lines[i].trimmed();
        if (line.isEmpty() || line.startsWith(';') || line.startsWith('#'))
            continue;
        if (line.startsWith('[') && line.endsWith(']')) {
            section = line.mid(1, line.size() - 2).trimmed();
            continue;
        }
        const int eq = line.indexOf('=');
        if (eq <= 0) {
            m_problems << QString("line %1: %2").arg(i + 1).arg(line.left(80));
            continue;
        }
        QString value = line.mid(eq + 1).trimmed();
        if (value.size() >= 2 && value.startsWith('"') && value.endsWith('"'))
            value = value.mid(1, value.size() - 2);
        m_values.insert(Key(section, line.left(eq).trimmed()), value);
    }
}

}  // namespace agent
