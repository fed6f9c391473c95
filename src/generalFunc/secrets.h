// Passwords travel in cloud messages (FTP "pwd", broker "pass_word") and in
// configuration files; log lines must never carry them.
#pragma once

#include <QByteArray>
#include <QString>

namespace lumbra {

// True for key names that hold secrets: any name containing "pass", "pwd",
// "secret" or "token", in any case.
bool isSecretKey(const QString &key);

// A fast check, without allocating, for text that might need masking.
bool mayHoldSecret(const char *text, size_t size);

// The text with the value of every secret key replaced by ***: JSON members
// ("pwd":"x", "pwd":123), JSON quoted inside a JSON string (\"pwd\":\"x\"),
// and INI or command-line style pairs (password=x, pass_word: x).
QString maskSecrets(const QString &text);
QByteArray maskSecrets(const QByteArray &text);

}  // namespace lumbra
