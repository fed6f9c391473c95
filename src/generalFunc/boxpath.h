// The box's absolute paths and the agent address, each with one environment
// override so that tests and development machines never touch a real box.
#pragma once

#include <QString>

namespace lumbra {

// "/usr/brenta/config.ini" -> "$LUMBRA_SYSROOT/usr/brenta/config.ini".
QString boxPath(const QString &absolutePath);

// "$LUMBRA_AGENT_URL", or "tcp://127.0.0.1:24401".
QString agentUrl();

}  // namespace lumbra
