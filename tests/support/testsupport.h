// Shared test fixtures: temp working directories, throw-away box roots, log capture.
#pragma once

#include <QString>
#include <QTemporaryDir>

#include <functional>

namespace lumbra::test {

// A temp dir that is also the current directory while it lives, so "./..."
// paths of the gateway land in it.
class WorkDir {
public:
    WorkDir();
    ~WorkDir();
    QString path() const { return m_dir.path(); }
    QString file(const QString &name) const { return m_dir.path() + "/" + name; }
    // Writes text to a file below the dir, creating folders.
    void write(const QString &name, const QByteArray &text) const;

private:
    QTemporaryDir m_dir;
    QString m_oldCwd;
};

// A temp box root in LUMBRA_SYSROOT for the fixture's lifetime.
class BoxRoot {
public:
    BoxRoot();
    ~BoxRoot();
    QString path() const { return m_dir.path(); }
    // write("/usr/brenta/config.ini", "MODEL=X") lands below the root.
    void write(const QString &absolutePath, const QByteArray &text) const;

private:
    QTemporaryDir m_dir;
};

// Routes every "iot" line of DEBUG and above to a file and reads it back.
class LogCapture {
public:
    LogCapture();
    QString text() const;
    bool contains(const QString &needle) const { return text().contains(needle); }
    int count(const QString &needle) const { return text().count(needle); }

private:
    QTemporaryDir m_dir;
};

// Polls cond every 10 ms until it holds or timeoutMs passed.
bool eventually(const std::function<bool()> &cond, int timeoutMs = 5000);

void writeFile(const QString &path, const QByteArray &text);
QByteArray readFile(const QString &path);

}  // namespace lumbra::test
