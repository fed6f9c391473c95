#include "boxpath.h"

#include <cstdlib>

namespace lumbra {

QString boxPath(const QString &absolutePath)
{
    const char *root = std::getenv("LUMBRA_SYSROOT");
    if (!root || !*root)
        return absolutePath;
    QString prefix = QString::fromLocal8Bit(root);
    while (prefix.endsWith('/'))
        prefix.chop(1);
    return prefix + absolutePath;
}

QString agentUrl()
{
    const char *url = std::getenv("LUMBRA_AGENT_URL");
    if (!url || !*url)
        return QStringLiteral("tcp://127.0.0.1:24401");
    return QString::fromLocal8Bit(url);
}

}  // namespace lumbra
