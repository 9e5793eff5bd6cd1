// Expected text that stands in a file of tests/data/report.
#pragma once

#include <QByteArray>
#include <QFile>
#include <QString>

namespace tarn::test {

/// What the file @p name holds. With UPDATE_EXPECTED set in the environment it is written first, to be looked
/// at and committed.
inline QByteArray golden(const QString& name, const QByteArray& actual)
{
    QFile file(QStringLiteral(TARN_TEST_DATA "/report/") + name);
    if (qEnvironmentVariableIsSet("UPDATE_EXPECTED") && file.open(QIODevice::WriteOnly)) {
        file.write(actual);
        file.close();
    }
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("no such file: ") + name.toUtf8();
}

/// Markup with a line for each element, so that a difference is seen in its line.
inline QByteArray inLines(QByteArray markup)
{
    return markup.replace("><", ">\n<") + '\n';
}

} // namespace tarn::test
