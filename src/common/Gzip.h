// Files that may be gzip-compressed, read whole into memory. Decompression is the system's gunzip program's,
// a child process for each call; the name of a file alone decides whether it is used. Logs nothing.
#pragma once

#include <QByteArray>
#include <QString>

namespace tarn {

/// The decompressed bytes of @p data. Of damaged data what gunzip made of it before it stopped, which may be
/// nothing; empty without a gunzip. @p intact, when given, tells whether all of it was decompressed: cut
/// data and a wrong check sum show nowhere else. What stands behind the compressed data is passed over. Waits
/// as long as it takes.
QByteArray gunzip(const QByteArray& data, bool* intact = nullptr);

/// The contents of the file @p path, decompressed when its name ends in ".gz" (this case only). Null when it
/// cannot be opened. @p intact as above; for a plain file, whether it could be read.
QByteArray readMaybeGzip(const QString& path, bool* intact = nullptr);

} // namespace tarn
