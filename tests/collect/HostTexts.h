// Texts for the parsers of what a host says of itself: captured ones, and ones that are nothing of the kind.
#pragma once

#include "support/CpuTime.h"
#include "support/HostileTexts.h"

#include <QByteArray>
#include <QFile>
#include <QString>
#include <QStringList>
#include <QTest>

#include <functional>

namespace tarn::test {

/// The path of a file or folder in tests/data.
inline QString capturedPath(const QString& name)
{
    return QStringLiteral(TARN_TEST_DATA "/") + name;
}

/// A file of tests/data. A test that looks at its text fails without it.
inline QByteArray captured(const QString& name)
{
    QFile file(capturedPath(name));
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

/// The column "text", and rows that every parser takes for an empty text.
inline void addSpoiltTexts()
{
    QTest::addColumn<QByteArray>("text");
    QTest::newRow("null") << QByteArray();
    QTest::newRow("empty") << QByteArray("");
    QTest::newRow("line-feeds") << QByteArray("\n\n\n");
    QTest::newRow("blanks") << QByteArray("   \t ");
    QTest::newRow("one-word") << QByteArray("cpu");
    QTest::newRow("colons") << QByteArray(":::\n:\n");
    QTest::newRow("nul-bytes") << QByteArray("\0\0:\0\n\0", 6);
    QTest::newRow("not-utf-8") << QByteArray("\xff\xfe: \xff\n");
    QTest::newRow("html") << QByteArray("<html><title>404</title>\n<a href=\"http://x\">x</a>\n");
    QTest::newRow("words") << QByteArray("sda: a b c d e f g h i j k\n");
    QTest::newRow("huge-line") << QByteArray(10'000'000, 'x');
    QTest::newRow("huge-line-of-blanks") << QByteArray(10'000'000, ' ');
    QTest::newRow("many-lines") << QByteArray("x: \n").repeated(1'000'000);
    QTest::newRow("many-columns") << QByteArray("x ").repeated(1'000'000);
}

/// The hostile shapes that cost @p parse ten times what letters do, as 64 KiB behind @p before; empty without
/// one. By the ratio within one run, in processor time. A number of 64 KiB cost 100 times what letters do.
inline QString textsThatCostTooMuch(const QByteArray& before,
                                    const std::function<void(const QByteArray&)>& parse)
{
    constexpr qsizetype kBytes = 65'536;
    const auto secondsFor = [&](const QByteArray& unit) {
        const QByteArray text = before + tests::textOf(unit, kBytes);
        return tests::leastSeconds(15, [&] { parse(text); });
    };
    QStringList result;
    const double plain = secondsFor("x");
    for (const tests::Shape& shape : tests::hostileShapes()) {
        const double hostile = secondsFor(shape.unit);
        if (hostile >= tarn::tests::kMostTimes * plain) {
            result.append(QStringLiteral("%1: %2 us, %3 us")
                              .arg(QLatin1StringView(shape.name))
                              .arg(hostile * 1e6)
                              .arg(plain * 1e6));
        }
    }
    return result.join(QStringLiteral(", "));
}

} // namespace tarn::test
