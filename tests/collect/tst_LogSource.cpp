// The place in a log, its slices and its lines, and one pass over a log that is rotated, cut or too long.

#include "analytics/Ingest.h"
#include "collect/LogSource.h"
#include "support/Messages.h"
#include "support/ProductSession.h"

#include <QFile>
#include <QRegularExpression>
#include <QSqlQuery>
#include <QTemporaryDir>
#include <QTest>

#include <sys/stat.h>
#include <unistd.h>

using namespace Qt::Literals::StringLiterals;
using namespace tarn;

namespace {

QByteArray line(int number)
{
    return "192.0.2.1 - - [10/Oct/2024:13:55:36 +0000] \"GET /" + QByteArray::number(number)
           + " HTTP/1.1\" 200 5 \"-\" \"curl/8.5\" 99\n";
}

QByteArray lines(int first, int count)
{
    QByteArray text;
    for (int i = 0; i < count; ++i)
        text += line(first + i);
    return text;
}

} // namespace

class tst_LogSource : public QObject
{
    Q_OBJECT

private:
    /// Writes @p text to the log as it stands, without another inode.
    void write(const QByteArray& text, QIODevice::OpenMode mode = QIODevice::Truncate)
    {
        QFile file(m_path);
        if (!file.open(QIODevice::WriteOnly | mode) || file.write(text) != text.size())
            qFatal("cannot write %s", qPrintable(m_path));
    }
    void append(const QByteArray& text) { write(text, QIODevice::Append); }

    /// One pass over the logs.
    void pass()
    {
        const QList<LogSource> sources = logSources();
        m_longLines->keepOnly(sources);
        for (const LogSource& source : sources)
            followLog(*m_ingest, *m_longLines, source);
    }

    /// The stored place, "same 120" where the inode is the log's.
    QString place()
    {
        struct stat status = {};
        stat(m_path.toLocal8Bit().constData(), &status);
        return test::scalar(u"SELECT CASE WHEN inode IS NULL THEN 'none' WHEN inode = %1 THEN 'same' "
                            "ELSE 'other' END || ' ' || read_offset FROM tarn.log_sources"_s.arg(
                                static_cast<qint64>(status.st_ino)));
    }
    static int hits() { return test::scalar(u"SELECT count(*) FROM tarn.hits"_s).toInt(); }

    QString tooLong() const
    {
        return u"collect: %1: a line is longer than 8388608 bytes; nothing from there on is read"_s.arg(
            m_path);
    }

    test::PostgresServer m_server;
    test::ProductSession m_session{m_server};
    std::unique_ptr<QTemporaryDir> m_folder;
    std::unique_ptr<analytics::Ingest> m_ingest;
    std::unique_ptr<LongLines> m_longLines;
    QString m_path;

private Q_SLOTS:
    void initTestCase() { QVERIFY(m_server.start()); }

    void init()
    {
        QTest::failOnWarning(QRegularExpression(u".?"_s));
        m_folder = std::make_unique<QTemporaryDir>();
        m_path = m_folder->filePath(u"access.log"_s);
        QVERIFY(m_session.open());
        test::run(u"INSERT INTO tarn.sites (id, host) VALUES (1, 'example.org')"_s);
        test::run(u"INSERT INTO tarn.log_sources (path, site_id) VALUES ('%1', 1)"_s.arg(m_path));
        m_ingest = std::make_unique<analytics::Ingest>();
        QVERIFY(m_ingest->init());
        m_longLines = std::make_unique<LongLines>();
    }
    void cleanup() { m_session.close(); }

    void startOffset_data()
    {
        QTest::addColumn<bool>("known");
        QTest::addColumn<quint64>("inode");
        QTest::addColumn<qint64>("size");
        QTest::addColumn<bool>("isVoid");
        QTest::addColumn<qint64>("offset");
        QTest::newRow("never-read") << false << quint64(7) << qint64(500) << false << qint64(0);
        QTest::newRow("never-read-and-empty") << false << quint64(7) << qint64(0) << false << qint64(0);
        QTest::newRow("grown") << true << quint64(7) << qint64(101) << false << qint64(100);
        QTest::newRow("as-it-was") << true << quint64(7) << qint64(100) << false << qint64(100);
        QTest::newRow("cut") << true << quint64(7) << qint64(99) << true << qint64(0);
        QTest::newRow("cut-to-nothing") << true << quint64(7) << qint64(0) << true << qint64(0);
        QTest::newRow("another-file") << true << quint64(8) << qint64(500) << true << qint64(0);
        QTest::newRow("another-file-of-that-size") << true << quint64(8) << qint64(100) << true << qint64(0);
    }
    void startOffset()
    {
        QFETCH(const bool, known);
        QFETCH(const quint64, inode);
        QFETCH(const qint64, size);
        LogSource source;
        source.readOffset = 100;
        if (known)
            source.inode = 7;
        const LogFile file{.inode = inode, .size = size};
        QTEST(isPlaceVoid(source, file), "isVoid");
        QTEST(tarn::startOffset(source, file), "offset");
    }

    void linesOf_data()
    {
        QTest::addColumn<QByteArray>("data");
        QTest::addColumn<QList<QByteArray>>("expected");
        QTest::newRow("none") << QByteArray() << QList<QByteArray>();
        QTest::newRow("two") << QByteArray("a\nb\n") << QList<QByteArray>{"a", "b"};
        QTest::newRow("empty-ones") << QByteArray("\n\na\n\n") << QList<QByteArray>{"a"};
        QTest::newRow("windows") << QByteArray("a\r\n") << QList<QByteArray>{"a\r"};
        QTest::newRow("not-ended") << QByteArray("a\nb") << QList<QByteArray>{"a", "b"};
    }
    void linesOf()
    {
        QFETCH(const QByteArray, data);
        QTEST(tarn::linesOf(data), "expected");
    }

    void slicesEndWithALine_data()
    {
        QTest::addColumn<QByteArray>("text");
        QTest::addColumn<int>("state");
        QTest::addColumn<qint64>("size");
        using State = LogSlice::State;
        const QByteArray xs(kSliceBytes, 'x');
        QTest::newRow("whole-lines") << QByteArray("a\nb\n") << static_cast<int>(State::Lines) << qint64(4);
        QTest::newRow("begun-line") << QByteArray("a\nb") << static_cast<int>(State::Lines) << qint64(2);
        QTest::newRow("only-a-begun-line") << QByteArray("a") << static_cast<int>(State::NoLine) << qint64(0);
        QTest::newRow("longest-line")
            << QByteArray(xs.chopped(1) + '\n') << static_cast<int>(State::Lines) << kSliceBytes;
        QTest::newRow("longest-begun-line") << xs.chopped(1) << static_cast<int>(State::NoLine) << qint64(0);
        QTest::newRow("longest-line-plus-one")
            << QByteArray(xs + '\n') << static_cast<int>(State::TooLong) << kSliceBytes;
    }
    void slicesEndWithALine()
    {
        QFETCH(const QByteArray, text);
        write(text);
        const LogSlice slice = readSlice(m_path, logFile(m_path).value(), 0);
        QTEST(static_cast<int>(slice.state), "state");
        QTEST(qint64(slice.data.size()), "size");
    }

    void exchangedSinceItWasLookedAtIsTheNextPass()
    {
        write(lines(1, 2));
        const LogFile before = logFile(m_path).value();
        QVERIFY(QFile::rename(m_path, m_path + u".1"_s));
        write(lines(3, 2));
        QCOMPARE(readSlice(m_path, before, 0).state, LogSlice::State::NoLine);
        QCOMPARE(readSlice(m_path, logFile(m_path).value(), 1'000).state, LogSlice::State::NoLine);
    }

    void whatCannotBeRead()
    {
        QVERIFY(!logFile(m_path));
        QCOMPARE(readSlice(m_folder->path(), logFile(m_folder->path()).value(), 0).state,
                 LogSlice::State::Unreadable);
    }

    void cutAndSeenEmptyLosesNothing()
    {
        write(lines(1, 20));
        pass();
        const qint64 size = lines(1, 20).size();
        QCOMPARE(place(), u"same %1"_s.arg(size));
        write({});
        for (int i = 0; i < 4; ++i)
            pass();
        QCOMPARE(place(), u"same 0"_s);
        const QByteArray more = lines(100, 30); // past the old place at once
        QVERIFY(more.size() > size);
        append(more);
        pass();
        QCOMPARE(hits(), 50);
    }

    void cutAndSeenWithoutAWholeLineLosesNothing()
    {
        write(lines(1, 20));
        pass();
        const QByteArray more = lines(100, 30);
        write(more.first(10));
        pass();
        QCOMPARE(place(), u"same 0"_s);
        append(more.sliced(10));
        pass();
        QCOMPARE(hits(), 50);
    }

    void rotatedAndSeenEmptyLosesNothing()
    {
        write(lines(1, 20));
        pass();
        QVERIFY(QFile::rename(m_path, m_path + u".1"_s));
        write({});
        pass();
        QCOMPARE(place(), u"same 0"_s);
        append(lines(100, 30));
        pass();
        QCOMPARE(hits(), 50);
    }

    void aNewSourceHasNoPlaceBeforeItsFirstLine()
    {
        test::run(u"UPDATE tarn.log_sources SET read_offset = 1000"_s);
        write({});
        pass();
        write(lines(1, 1).chopped(1));
        pass();
        QCOMPARE(place(), u"none 1000"_s);
        write({});
        pass();
        append(lines(1, 30));
        pass();
        QCOMPARE(hits(), 30);
    }

    void nothingNewStoresNothing()
    {
        write(lines(1, 3));
        pass();
        const QString at = test::scalar(u"SELECT updated_at FROM tarn.log_sources"_s);
        pass();
        append(line(4).chopped(1));
        pass();
        QCOMPARE(test::scalar(u"SELECT updated_at FROM tarn.log_sources"_s), at);
    }

    void tooLongALineIsSaidOnceAFile()
    {
        QByteArray text = line(1) + QByteArray(kSliceBytes + 1, 'x') + '\n' + line(2);
        write(text);
        pass(); // up to the line
        QTest::ignoreMessage(QtWarningMsg, qPrintable(tooLong()));
        for (int i = 0; i < 3; ++i) {
            pass();
            append(line(3));
        }
        QCOMPARE(hits(), 1);
        // The same line, seen anew: not a word.
        *m_longLines = {};
        QTest::ignoreMessage(QtWarningMsg, qPrintable(tooLong()));
        pass();
        // Another file.
        QVERIFY(QFile::rename(m_path, m_path + u".1"_s));
        write(QByteArray(kSliceBytes + 1, 'y') + '\n');
        QTest::ignoreMessage(QtWarningMsg, qPrintable(tooLong()));
        pass();
        pass();
    }

    void tooLongALineIsNotReadAgain()
    {
        write(QByteArray(kSliceBytes + 1, 'x') + '\n' + line(2));
        QTest::ignoreMessage(QtWarningMsg, qPrintable(tooLong()));
        pass();
        const auto bytesRead = [] {
            QFile io(u"/proc/self/io"_s);
            if (!io.open(QIODevice::ReadOnly))
                return qint64(-1);
            return io.readAll().split('\n').first().split(' ').last().toLongLong();
        };
        const qint64 before = bytesRead();
        QVERIFY(before > 0);
        for (int i = 0; i < 10; ++i)
            pass();
        QVERIFY2(bytesRead() - before < kSliceBytes, qPrintable(QString::number(bytesRead() - before)));
    }

    void tooLongALineThatIsCutAwayIsForgotten_data()
    {
        QTest::addColumn<QByteArray>("instead");
        QTest::newRow("a-shorter-file") << line(1);
        QTest::newRow("as-long-a-file") << QByteArray(line(1) + QByteArray(kSliceBytes, '\n'));
        QTest::newRow("the-same-beginning") << QByteArray(QByteArray(2'000, 'x') + '\n' + line(1));
    }
    void tooLongALineThatIsCutAwayIsForgotten()
    {
        QFETCH(const QByteArray, instead);
        write(QByteArray(kSliceBytes + 1, 'x') + '\n');
        QTest::ignoreMessage(QtWarningMsg, qPrintable(tooLong()));
        pass();
        pass();
        write(instead);
        if (instead.startsWith('x'))
            QTest::ignoreMessage(QtWarningMsg,
                                 qPrintable(u"collect: %1: 1 lines were not log entries"_s.arg(m_path)));
        pass();
        QCOMPARE(hits(), 1);
    }

    void sourcesThatAreRemovedAreForgotten()
    {
        write(QByteArray(kSliceBytes + 1, 'x') + '\n');
        const LogSource source = logSources().value(0);
        const LogFile file = logFile(m_path).value();
        const QByteArray slice(kSliceBytes, 'x');
        QVERIFY(m_longLines->note(source, file, 0, slice));
        QVERIFY(!m_longLines->note(source, file, 0, slice));
        QVERIFY(m_longLines->isKnown(source, file, 0));
        QVERIFY(!m_longLines->isKnown(source, file, 1));
        m_longLines->keepOnly({source});
        QVERIFY(m_longLines->isKnown(source, file, 0));
        m_longLines->keepOnly({});
        QVERIFY(!m_longLines->isKnown(source, file, 0));
        QVERIFY(m_longLines->note(source, file, 0, slice));
    }
};

QTEST_GUILESS_MAIN(tst_LogSource)
#include "tst_LogSource.moc"
