// Reads files that may be gzip-compressed (RFC 1952), whole into memory. The system's gunzip program
// decompresses them, in a child process for each call. Only the name of a file decides whether it is asked.
// Logs nothing.
#pragma once

#include <QByteArray>
#include <QString>

namespace tarn {

/// The decompressed bytes of @p data, of any size that fits into memory. Damaged data give what gunzip wrote
/// before it stopped, which may be nothing. Without a gunzip program the result is empty. @p intact, when
/// given, tells whether everything was decompressed: cut data and a wrong check sum show nowhere else. Bytes
/// behind the compressed data are passed over. Blocks for as long as gunzip runs, without an event loop.
QByteArray gunzip(const QByteArray& data, bool* intact = nullptr);

/// The contents of the file @p path, decompressed when its name ends in ".gz" (this case only). Null when it
/// cannot be opened. @p intact as above; for a plain file it tells whether the file could be read.
QByteArray readMaybeGzip(const QString& path, bool* intact = nullptr);

} // namespace tarn
