// The lines of a text, one after the other and without a copy. A text of line feeds alone costs no more than
// its length.
#pragma once

#include <QByteArrayView>

namespace tarn {

/// Takes the first line and its line feed off @p rest. Returns the line without the line feed.
inline QByteArrayView takeLine(QByteArrayView& rest)
{
    const qsizetype end = rest.indexOf('\n');
    const QByteArrayView line = end < 0 ? rest : rest.first(end);
    rest = end < 0 ? QByteArrayView() : rest.sliced(end + 1);
    return line;
}

} // namespace tarn
