// What the tests of clients and of sources share.
#pragma once

#include "analytics/Classifier.h"
#include "analytics/Dice.h"
#include "analytics/VerdictFiles.h"

#include <QTest>

namespace tarn::test {

using namespace Qt::Literals::StringLiterals;
using namespace tarn::analytics;
using tarn::tests::Dice;
using tarn::tests::Verdict;
using tarn::tests::Verdicts;

inline constexpr int kRounds = 20000;

inline QString shown(const Client& client)
{
    return QStringList{client.bot, client.device, client.browser, client.os}.join(u" | "_s);
}

inline QString shown(const Source& source)
{
    return QStringList{source.kind, source.name, source.searchTerms}.join(u" | "_s);
}

inline QString shown(const QByteArray& bytes)
{
    return QString::fromLatin1(bytes.toPercentEncoding(" /:;,()+?&=#@[]{}'\"<>|$!*"));
}

inline QList<QByteArray> textsOf(const Verdicts& verdicts)
{
    QList<QByteArray> texts;
    for (const Verdict& line : verdicts.lines)
        texts += line.text;
    return texts;
}

inline QByteArray withLettersFlipped(QByteArray text, Dice& dice, int oneIn)
{
    for (char& c : text) {
        const bool isLetter = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
        if (isLetter && dice.oneIn(oneIn))
            c = static_cast<char>(c ^ 0x20);
    }
    return text;
}

/// @p text after an accident, or joined with a part of another of @p texts. Characters may end up cut in two.
inline QByteArray damaged(QByteArray text, const QList<QByteArray>& texts,
                          const QList<QByteArray>& insertions, Dice& dice)
{
    const qsizetype at = dice.below(text.size() + 1);
    const QByteArray& other = dice.oneOf(texts);
    switch (dice.below(8)) {
    case 0:
        return text.left(at);
    case 1:
        return text.sliced(at);
    case 2:
        return text.left(at) + other.sliced(dice.below(other.size() + 1));
    case 3:
        return withLettersFlipped(text, dice, 1);
    case 4:
        return withLettersFlipped(text, dice, 8);
    case 5:
        return text.remove(at, 1 + dice.below(3));
    default:
        return text.insert(at, dice.oneOf(insertions));
    }
}

/// All that went wrong at once: one line of a data file seldom comes alone.
inline void report(const QStringList& failures)
{
    QVERIFY2(failures.isEmpty(), qPrintable(u'\n' + failures.join(u'\n')));
}

} // namespace tarn::test
