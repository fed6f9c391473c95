#include "testsupport.h"

#include "generalFunc/globals.h"

#include <QDir>
#include <QElapsedTimer>
#include <QThread>
#include <QFile>
#include <QFileInfo>

#include <cstdlib>
#include <gtest/gtest.h>

namespace lumbra::test {

bool eventually(const std::function<bool()> &cond, int timeoutMs)
{
    QElapsedTimer t;
    t.start();
    while (!cond()) {
        if (t.elapsed() > timeoutMs)
            return false;
        QThread::msleep(10);
    }
    return true;
}

void writeFile(const QString &path, const QByteArray &text)
{
    QDir().mkpath(QFileInfo(path).path());
    QFile f(path);
    ASSERT_TRUE(f.open(QIODevice::WriteOnly | QIODevice::Truncate)) << path.toStdString();
    f.write(text);
}

QByteArray readFile(const QString &path)
{
    QFile f(path);
    return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
}

WorkDir::WorkDir() : m_oldCwd(QDir::currentPath())
{
    QDir::setCurrent(m_dir.path());
}

WorkDir::~WorkDir()
{
    QDir::setCurrent(m_oldCwd);
}

void WorkDir::write(const QString &name, const QByteArray &text) const
{
    writeFile(file(name), text);
}

BoxRoot::BoxRoot()
{
    setenv("LUMBRA_SYSROOT", m_dir.path().toLocal8Bit().constData(), 1);
}

BoxRoot::~BoxRoot()
{
    unsetenv("LUMBRA_SYSROOT");
}

void BoxRoot::write(const QString &absolutePath, const QByteArray &text) const
{
    writeFile(m_dir.path() + absolutePath, text);
}

LogCapture::LogCapture()
{
    QString conf = m_dir.path() + "/zlog.conf";
    writeFile(conf, "[formats]\nplain = \"%V %F:%L %U| %m%n\"\n[rules]\niot.DEBUG \"" +
                        (m_dir.path() + "/iot.log").toUtf8() + "\"; plain\n");
    zlog_init(conf.toLocal8Bit().constData());
    g_zlog = zlog_get_category("iot");
}

QString LogCapture::text() const
{
    return QString::fromUtf8(readFile(m_dir.path() + "/iot.log"));
}

}  // namespace lumbra::test
