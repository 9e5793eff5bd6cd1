// What the tests of disks and of services share.
#pragma once

#include <QByteArray>
#include <QFile>
#include <QString>

namespace tarn::test {

/// Empty when it cannot be read.
inline QByteArray contentsOf(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

} // namespace tarn::test
