// Reads the folders of real strings with their verdicts: tests/data/useragents and tests/data/referrers,
// whose first files tell the format. All that is wrong with the files is reported, so that a typing error
// does not pass as a verdict.
#pragma once

#include <QByteArray>
#include <QDir>
#include <QFile>
#include <QHash>
#include <QRegularExpression>
#include <QString>
#include <QStringList>

namespace tarn::tests {

struct Verdict
{
    QString where;       ///< "bots.txt:12"
    QStringList columns; ///< of the group's heading
    QByteArray text;     ///< the string that is judged
    QHash<QString, QByteArray> options;
};

struct Verdicts
{
    QList<Verdict> lines;
    QStringList problems;
};

/// @p text with each \xHH made a byte.
inline QByteArray unescaped(const QString& text)
{
    using namespace Qt::Literals::StringLiterals;
    if (text == "(empty)"_L1)
        return {};
    const QByteArray bytes = text.toUtf8();
    QByteArray result;
    for (qsizetype i = 0; i < bytes.size(); ++i) {
        bool isByte = false;
        const uint value = bytes.mid(i + 2, 2).toUInt(&isByte, 16);
        if (isByte && bytes.mid(i, 2) == "\\x") {
            result += static_cast<char>(value);
            i += 3;
        } else {
            result += bytes[i];
        }
    }
    return result;
}

/// The lines of all files in @p folder. A heading has @p columns columns. Options named in @p optionNames may
/// follow the text of a line; when there are none to name, the line is one text with all that stands in it.
inline Verdicts readVerdicts(const QString& folder, qsizetype columns, const QStringList& optionNames = {})
{
    using namespace Qt::Literals::StringLiterals;
    Verdicts result;
    for (const QString& name : QDir(folder).entryList({u"*.txt"_s}, QDir::Files, QDir::Name)) {
        QFile file(folder + u'/' + name);
        if (!file.open(QIODevice::ReadOnly))
            result.problems += name + u": cannot be read"_s;
        const QStringList lines = QString::fromUtf8(file.readAll()).split(u'\n');
        QStringList heading;
        for (qsizetype i = 0; i < lines.size(); ++i) {
            const QString& line = lines[i];
            const QString where = u"%1:%2"_s.arg(name).arg(i + 1);
            if (line.isEmpty() || line.startsWith(u'#'))
                continue;
            if (line.startsWith(u'[') && line.endsWith(u']')) {
                heading = line.sliced(1, line.size() - 2).split(u" | "_s);
                for (QString& column : heading)
                    column = column == "-"_L1 ? QString() : QString::fromUtf8(unescaped(column));
                if (heading.size() != columns)
                    result.problems += where + u": a heading of another size"_s;
                continue;
            }
            if (line != line.trimmed() || heading.size() != columns)
                result.problems += where + u": spaces at an end, or no heading above"_s;
            const QStringList parts = optionNames.isEmpty() ? QStringList{line} : line.split(u" | "_s);
            Verdict verdict{where, heading, unescaped(parts.first()), {}};
            for (const QString& part : parts.sliced(1)) {
                const QString option = part.section(u'=', 0, 0);
                if (!optionNames.contains(option) || verdict.options.contains(option))
                    result.problems += where + u": \""_s + option + u"\" is no option or stands twice"_s;
                verdict.options.insert(option, unescaped(part.section(u'=', 1)));
            }
            result.lines += verdict;
        }
    }
    return result;
}

} // namespace tarn::tests
