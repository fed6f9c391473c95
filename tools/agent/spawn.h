// Starting the gateway as a child process.
#pragma once

#include <QByteArray>
#include <QStringList>

#include <sys/types.h>

namespace agent {

// Starts command (PATH searched) in the current directory with this process's
// environment plus LUMBRA_AGENT_URL=agentUrl. The child gets default signal
// handling and is sent SIGTERM should the agent die. Returns its pid, or -1
// with the reason in *error when it could not be started (exec failures too).
pid_t spawnGateway(const QStringList &command, const QByteArray &agentUrl, QByteArray *error);

// "exited with status 1" / "killed by signal 9", from a waitpid status.
QByteArray describeExit(int status);

}  // namespace agent
