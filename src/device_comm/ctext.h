// Filling the fixed-size text fields of the driver ABI's C structs.
#pragma once

#include <QString>

#include <cstring>

namespace lumbra {

// Copies src as UTF-8, cut to fit and always zero-terminated.
inline void copyCText(char *dst, size_t size, const QString &src)
{
    QByteArray b = src.toUtf8();
    std::strncpy(dst, b.constData(), size - 1);
    dst[size - 1] = '\0';
}

}  // namespace lumbra
