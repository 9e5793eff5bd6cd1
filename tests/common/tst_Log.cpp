// What becomes of a text on its way to the log.

#include "common/Log.h"

#include <QTest>

#include <fcntl.h>
#include <unistd.h>

#include <array>

using namespace Qt::Literals::StringLiterals;
using namespace tarn;

namespace {

/// What @p body writes to standard error, of at most a pipe's 64 KiB.
template <typename Body>
QByteArray standardErrorOf(Body body)
{
    std::array<int, 2> ends = {};
    if (pipe2(ends.data(), O_CLOEXEC | O_NONBLOCK) != 0)
        qFatal("no pipe");
    const int before = dup(STDERR_FILENO);
    dup2(ends[1], STDERR_FILENO);
    body();
    dup2(before, STDERR_FILENO);
    close(before);
    close(ends[1]);
    QByteArray text(65'536, '\0');
    text.resize(std::max<qsizetype>(0, read(ends[0], text.data(), static_cast<size_t>(text.size()))));
    close(ends[0]);
    return text;
}

/// The same with the log's handler in place of the test's own.
template <typename Body>
QByteArray logOf(Body body)
{
    const QtMessageHandler before = qInstallMessageHandler(nullptr);
    installLog();
    const QByteArray text = standardErrorOf(body);
    qInstallMessageHandler(before);
    return text;
}

} // namespace

class tst_Log : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void oneLine_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<QString>("line");
        QTest::newRow("ordinary") << u"collect: google: 3 days,  2 rows"_s
                                  << u"collect: google: 3 days,  2 rows"_s;
        QTest::newRow("empty") << QString() << QString();
        QTest::newRow("not-ascii") << u"f\u00fcr \u20ac \U0001F600 \u00a0"_s
                                   << u"f\u00fcr \u20ac \U0001F600 \u00a0"_s;
        QTest::newRow("line-feed") << u"a\nalert: disk"_s << u"a alert: disk"_s;
        QTest::newRow("carriage-return") << u"a\r\nb\rc"_s << u"a b c"_s;
        QTest::newRow("at-the-end") << u"reason\n"_s << u"reason"_s;
        QTest::newRow("at-the-start") << u"\nreason"_s << u" reason"_s;
        QTest::newRow("reason-of-postgresql")
            << u"ERROR:  no such site\nDETAIL:  Key (1).\n(23503) QPSQL: Unable to create query"_s
            << u"ERROR:  no such site DETAIL:  Key (1). (23503) QPSQL: Unable to create query"_s;
        QTest::newRow("reason-with-tabs") << u"failed:\n\tIs it running?"_s << u"failed: Is it running?"_s;
        QTest::newRow("nul") << QString(u"a"_s + QChar::Null + u"b"_s) << u"a b"_s;
        QTest::newRow("escape") << u"a\u001b[2Jb"_s << u"a [2Jb"_s;
        QTest::newRow("delete") << u"a\u007fb"_s << u"a b"_s;
        QTest::newRow("vertical-tab-and-form-feed") << u"a\u000b\u000cb"_s << u"a b"_s;
        QTest::newRow("next-line") << QString(u"a"_s + QChar(0x85) + u"b"_s) << u"a b"_s;
        QTest::newRow("line-separator") << u"a\u2028b"_s << u"a b"_s;
        QTest::newRow("paragraph-separator") << u"a\u2029b"_s << u"a b"_s;
        QTest::newRow("nothing-else") << u"\r\n\n"_s << QString();
    }
    void oneLine()
    {
        QFETCH(const QString, text);
        QFETCH(const QString, line);
        QCOMPARE(tarn::oneLine(text), line);
        QCOMPARE(logOf([&text] { qWarning("%s", qPrintable(text.left(text.indexOf(QChar::Null)))); }),
                 tarn::oneLine(text.left(text.indexOf(QChar::Null))).toUtf8() + '\n');
    }

    void longLinesAreCut()
    {
        const QString longest(kMaxLogLineBytes - 1, u'x');
        QCOMPARE(logLine(longest), longest.toUtf8() + '\n');
        const QByteArray cut = logLine(longest + u'x');
        QCOMPARE(cut.size(), kMaxLogLineBytes);
        QVERIFY(cut.endsWith("xxx...\n"));
    }

    void longLinesAreCutBetweenCharacters()
    {
        for (int before = 0; before < 4; ++before) {
            const QByteArray cut = logLine(QString(before, u'x') + QString(kMaxLogLineBytes, u'\u20ac'));
            QVERIFY(cut.size() > kMaxLogLineBytes - 4 && cut.size() <= kMaxLogLineBytes);
            QVERIFY(!QString::fromUtf8(cut).contains(QChar::ReplacementCharacter));
        }
    }

    void halfACharacterBreaksNothing()
    {
        QCOMPARE(logOf([] { qWarning().noquote() << QString(u"a"_s + QChar(0xd83d)); }).count('\n'), 1);
        QCOMPARE(logOf([] { qWarning("\xff\xc3\n\xe2\x80"); }).count('\n'), 1);
    }

    void writesWhatQtWouldWrite()
    {
        const auto messages = [] {
            qInfo("collect: f\xc3\xbcr %d", 1);
            qWarning("sql: no");
            qCritical("database: no");
            qWarning("%s", "");
        };
        const QtMessageHandler before = qInstallMessageHandler(nullptr);
        const QByteArray ofQt = standardErrorOf(messages);
        qInstallMessageHandler(before);
        QCOMPARE(ofQt.count('\n'), 4);
        QCOMPARE(logOf(messages), ofQt);
    }

    void thePatternIsHonoured()
    {
        qSetMessagePattern(u"%{if-warning}<4>%{endif}%{if-info}<6>%{endif}%{message}"_s);
        const QByteArray written = logOf([] {
            qInfo("info");
            qWarning("a\n<2>b");
        });
        qSetMessagePattern(u"%{if-category}%{category}: %{endif}%{message}"_s);
        QCOMPARE(written, "<6>info\n<4>a <2>b\n");
    }
};

QTEST_GUILESS_MAIN(tst_Log)
#include "tst_Log.moc"
