#include "support/GzipProgram.h"

#include <QProcess>

using namespace Qt::Literals::StringLiterals;

namespace tarn::test {

QByteArray gzip(const QByteArray& data)
{
    QProcess process;
    process.start(u"gzip"_s, {u"-c"_s, u"-1"_s});
    process.write(data);
    process.closeWriteChannel();
    process.waitForFinished(-1);
    return process.readAllStandardOutput();
}

} // namespace tarn::test
