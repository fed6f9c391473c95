// Device values as bytes in the layout of the DATA_TYPE_* names (native byte
// order), and how many link units (cells or 16-bit words) they span.
#pragma once

#include <QString>

#include <cstddef>

namespace lumbra {

enum class MacroType { Bit, Byte, Word, DWord, String, Unknown };

// The family of a type name (DATA_TYPE_BIT → Bit, DATA_TYPE_WUB → Word, ...).
MacroType macroTypeOf(const QString &type);
// The position of a type name in DATA_TYPE (0 for an unknown one).
int macroTypeIndex(const QString &type);
// Bytes one element takes in a buffer: 1 for bits and 8-bit types (and each
// character of a string), 2 for words, 4 for double words and floats.
int macroElementBytes(const QString &type);
// Link units that n elements of type span: a cell per bit, two bytes per
// word for the rest.
int macroUnits(const QString &type, int n);

// Encode value into bytes (at least macroElementBytes(type) of room); false
// for an unknown or string type, leaving bytes alone.
bool ValueToArray(unsigned char *bytes, double value, const QString &type);
// Decode one element; false (value 0) for an unknown or string type.
bool ArrayToValue(const unsigned char *bytes, double &value, const QString &type);

}  // namespace lumbra
