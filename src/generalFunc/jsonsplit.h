// Finding the items of a large JSON array by their extents, without building
// a document of the whole text: a configuration of ten thousand points would
// otherwise take several times its own size in memory while it loads.
#pragma once

#include <QByteArray>
#include <QVector>

namespace lumbra {

struct JsonSpan {
    int begin = 0;
    int end = 0;  // one past the last byte
};

// Walks text as one JSON object and finds the array under key: its extent
// (brackets included) and the extent of each of its items. Only the nesting
// and the strings are checked here; the pieces are parsed by whoever takes
// them. False when text is no object this walk can follow or has no such
// array; of several members named key, the last counts.
bool splitArrayMember(const QByteArray &text, const char *key, JsonSpan *array, QVector<JsonSpan> *items);

}  // namespace lumbra
