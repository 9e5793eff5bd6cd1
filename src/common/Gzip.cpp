#include "common/Gzip.h"

#include <QFile>
#include <QProcess>

using namespace Qt::Literals::StringLiterals;

namespace tarn {

namespace {

/// gunzip's exit status for a warning, as about bytes behind the archive (gzip(1)).
constexpr int kWarning = 2;

} // namespace

QByteArray gunzip(const QByteArray& data, bool* intact)
{
    QProcess process;
    // gunzip's error messages would end up in the collector's log.
    process.setStandardErrorFile(QProcess::nullDevice());
    process.start(u"gunzip"_s, {u"-c"_s});
    // All input is written before anything is read. QProcess keeps what the pipe does not take yet, and
    // serves both directions while it waits. If gunzip ends early, the rest is dropped.
    process.write(data);
    process.closeWriteChannel();
    const bool finished = process.waitForFinished(-1);
    const bool ended = finished && process.exitStatus() == QProcess::NormalExit;
    QByteArray contents = process.readAllStandardOutput();
    if (intact) {
        *intact =
            ended && (process.exitCode() == 0 || (process.exitCode() == kWarning && !contents.isEmpty()));
    }
    return contents;
}

QByteArray readMaybeGzip(const QString& path, bool* intact)
{
    if (intact)
        *intact = false;
    QFile file(path);
    // Qt warns of a file without a name.
    if (path.isEmpty() || !file.open(QIODevice::ReadOnly))
        return {};
    QByteArray contents = file.readAll();
    if (path.endsWith(".gz"_L1))
        return gunzip(contents, intact);
    if (intact)
        *intact = file.error() == QFile::NoError;
    return contents;
}

} // namespace tarn
