#include "support/ProcessMemory.h"

#include <QFile>
#include <QTest>

using namespace Qt::Literals::StringLiterals;

namespace tarn::test {

double memoryMb(QByteArrayView key)
{
    QFile status(u"/proc/self/status"_s);
    if (!status.open(QIODevice::ReadOnly))
        return 0;
    const QByteArray contents = status.readAll();
    const qsizetype start = contents.indexOf(key) + key.size() + 1;
    return contents.mid(start, contents.indexOf(" kB", start) - start).trimmed().toDouble() / 1024;
}

void resetMemoryPeak()
{
    QFile file(u"/proc/self/clear_refs"_s);
    QVERIFY(file.open(QIODevice::WriteOnly) && file.write("5") == 1);
}

} // namespace tarn::test
