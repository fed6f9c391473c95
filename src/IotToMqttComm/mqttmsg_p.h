// Shared by the files of the cloud message handlers.
#pragma once

#include <QJsonObject>
#include <QString>

namespace lumbra {

// The payload as a JSON object; false for anything else.
bool parseObject(const QString &payload, QJsonObject *out);
// Same, with the parser's complaint in why.
bool parseObject(const QString &payload, QJsonObject *out, QString *why);

}  // namespace lumbra
