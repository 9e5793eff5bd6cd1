// The lines of a text, one after the other and without a copy, so that a text of nothing but line feeds costs
// no more than its length.
#pragma once

#include <QByteArrayView>

namespace tarn {

/// The first line of @p rest without its line feed; @p rest is left with what is behind that.
inline QByteArrayView takeLine(QByteArrayView& rest)
{
    const qsizetype end = rest.indexOf('\n');
    const QByteArrayView line = end < 0 ? rest : rest.first(end);
    rest = end < 0 ? QByteArrayView() : rest.sliced(end + 1);
    return line;
}

} // namespace tarn
