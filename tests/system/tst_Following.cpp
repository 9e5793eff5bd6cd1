// The running binary on access logs that grow, rotate, shrink and are not there.

#include "support/Collector.h"
#include "support/PostgresServer.h"

#include <QDir>
#include <QFile>
#include <QRegularExpression>
#include <QSqlDatabase>
#include <QSqlQuery>
#include <QTemporaryDir>
#include <QTest>

using namespace Qt::Literals::StringLiterals;
using namespace tarn;

namespace {

constexpr qsizetype kSliceBytes = 8'388'608;

QByteArray line(const QByteArray& path, const QByteArray& agent = "curl/8.5")
{
    return "192.0.2.1 - - [10/Oct/2024:13:55:36 +0000] \"GET " + path + " HTTP/1.1\" 200 5 \"-\" \"" + agent
           + "\" 99\n";
}

} // namespace

class tst_Following : public QObject
{
    Q_OBJECT

private:
    QString logPath(const QString& name = u"access.log"_s) const { return m_folder->filePath(name); }

    static void write(const QString& path, const QByteArray& text,
                      QIODevice::OpenMode mode = QIODevice::Truncate)
    {
        QFile file(path);
        if (!file.open(QIODevice::WriteOnly | mode) || file.write(text) != text.size())
            qFatal("cannot write %s", qPrintable(path));
    }
    static void append(const QString& path, const QByteArray& text) { write(path, text, QIODevice::Append); }

    /// Registers a log of the site, as the suite does.
    void follow(const QString& path, int site = 1)
    {
        QSqlQuery query(m_database);
        query.prepare(u"INSERT INTO tarn.log_sources (path, site_id) VALUES (?, ?)"_s);
        query.addBindValue(path);
        query.addBindValue(site);
        QVERIFY(query.exec());
    }

    QString value(const QString& statement) const { return test::value(m_database, statement); }
    void run(const QString& statement) { test::run(m_database, statement); }

    /// The stored paths in order, with repetitions.
    QString paths() const
    {
        return value(u"SELECT coalesce(string_agg(path, ' ' ORDER BY path), '') FROM tarn.hits"_s);
    }

    QString readOffset(const QString& path) const
    {
        return value(u"SELECT read_offset FROM tarn.log_sources WHERE path = '%1'"_s.arg(path));
    }

    bool waitForHits(int count)
    {
        const auto arrived = [&] { return value(u"SELECT count(*) FROM tarn.hits"_s).toInt() >= count; };
        return QTest::qWaitFor(arrived, 60'000);
    }

    /// Waits until the collector has gone over the logs twice more, so that what it has not stored it will
    /// not.
    void waitForTwoPasses()
    {
        for (int pass = 0; pass < 2; ++pass) {
            const QString before = lastPass();
            QVERIFY2(QTest::qWaitFor([&] { return lastPass() > before; }, 60'000), qPrintable(state()));
        }
        // The statement seen is the pass's first; give the pass itself time to do what it should not.
        QTest::qWait(100);
    }
    QString lastPass() const
    {
        return value(u"SELECT coalesce(max(query_start)::text, '') FROM pg_stat_activity WHERE "
                     u"application_name = 'tarn-collect' "
                     "AND datname = current_database() AND query LIKE '%log_sources%'"_s);
    }

    /// What a failure is explained by: the sessions of the database and the collector's log.
    QString state() const
    {
        const QString sessions = value(u"SELECT string_agg(concat_ws(' ', application_name, state, "
                                       u"wait_event, query_start, query), chr(10)) "
                                       "FROM pg_stat_activity WHERE datname = current_database()"_s);
        return u"now %1\n%2\n%3"_s.arg(value(u"SELECT now()"_s), sessions, m_collector->log().join(u'\n'));
    }

    test::PostgresServer m_server;
    QSqlDatabase m_database;
    std::unique_ptr<QTemporaryDir> m_folder;
    std::unique_ptr<test::Collector> m_collector;

private Q_SLOTS:
    void initTestCase() { QVERIFY(m_server.start()); }

    void init()
    {
        QTest::failOnWarning(QRegularExpression(u".?"_s));
        m_folder = std::make_unique<QTemporaryDir>();
        m_collector = std::make_unique<test::Collector>();
        m_database = m_server.connect(m_collector->useNewDatabase(m_server), u"test"_s);
        run(u"INSERT INTO tarn.sites (id, host) VALUES (1, 'example.org'), (2, 'example.net')"_s);
    }

    void cleanup() { m_collector.reset(); }

    void whatStandsInTheLogAndWhatIsAppended()
    {
        write(logPath(), line("/1") + line("/2"));
        follow(logPath());
        m_collector->start();
        QVERIFY(waitForHits(2));
        append(logPath(), line("/3"));
        QVERIFY(waitForHits(3));
        append(logPath(), line("/4") + line("/5"));
        QVERIFY(waitForHits(5));
        QCOMPARE(paths(), u"/1 /2 /3 /4 /5"_s);
        QCOMPARE(value(u"SELECT updated_at > now() - interval '1 minute' FROM tarn.log_sources"_s),
                 u"true"_s);
        QCOMPARE(m_collector->log(), QStringList());
    }

    void newSourceStartsAtTheFirstByte()
    {
        write(logPath(), line("/1") + line("/2"));
        follow(logPath());
        run(u"UPDATE tarn.log_sources SET read_offset = %1"_s.arg(line("/1").size()));
        m_collector->start();
        QVERIFY(waitForHits(2));
        QCOMPARE(paths(), u"/1 /2"_s);
    }

    void anotherStartReadsNoLineTwice()
    {
        write(logPath(), line("/1"));
        follow(logPath());
        m_collector->start();
        QVERIFY(waitForHits(1));
        QTRY_COMPARE(readOffset(logPath()).toLongLong(), line("/1").size());
        m_collector->terminate();
        append(logPath(), line("/2"));
        m_collector->start();
        QVERIFY(waitForHits(2));
        waitForTwoPasses();
        QCOMPARE(paths(), u"/1 /2"_s);
    }

    void incompleteLineWaits()
    {
        const QByteArray last = line("/2");
        write(logPath(), line("/1") + last.first(30));
        follow(logPath());
        m_collector->start();
        QVERIFY(waitForHits(1));
        waitForTwoPasses();
        QCOMPARE(readOffset(logPath()).toLongLong(), line("/1").size());
        append(logPath(), last.sliced(30));
        QVERIFY(waitForHits(2));
        QCOMPARE(paths(), u"/1 /2"_s);
        QCOMPARE(m_collector->log(), QStringList());
    }

    void onlyAnIncompleteLineMovesNothing()
    {
        write(logPath(), line("/1").chopped(1));
        follow(logPath());
        m_collector->start();
        waitForTwoPasses();
        QCOMPARE(value(u"SELECT inode FROM tarn.log_sources"_s), u"NULL"_s);
        QCOMPARE(readOffset(logPath()), u"0"_s);
    }

    void rotatedByRenaming()
    {
        write(logPath(), line("/1") + line("/2"));
        follow(logPath());
        m_collector->start();
        QVERIFY(waitForHits(2));
        QTRY_VERIFY(readOffset(logPath()) != u"0"_s);
        QVERIFY(QFile::rename(logPath(), logPath(u"access.log.1"_s)));
        write(logPath(), line("/3") + line("/4") + line("/5"));
        QVERIFY(waitForHits(5));
        waitForTwoPasses();
        QCOMPARE(paths(), u"/1 /2 /3 /4 /5"_s);
    }

    void cutInPlace()
    {
        write(logPath(), line("/1") + line("/2"));
        follow(logPath());
        m_collector->start();
        QVERIFY(waitForHits(2));
        QTRY_VERIFY(readOffset(logPath()) != u"0"_s);
        write(logPath(), line("/3"));
        QVERIFY(waitForHits(3));
        QCOMPARE(paths(), u"/1 /2 /3"_s);
        QTRY_COMPARE(readOffset(logPath()).toLongLong(), line("/3").size());
    }

    void cutSeenEmptyAndGrownPastTheOldPlace()
    {
        write(logPath(), line("/1") + line("/2"));
        follow(logPath());
        m_collector->start();
        QVERIFY(waitForHits(2));
        QTRY_VERIFY(readOffset(logPath()) != u"0"_s);
        write(logPath(), {});
        QTRY_COMPARE_WITH_TIMEOUT(readOffset(logPath()), u"0"_s, 20'000);
        append(logPath(), line("/3") + line("/4") + line("/5"));
        QVERIFY(waitForHits(5));
        QCOMPARE(paths(), u"/1 /2 /3 /4 /5"_s);
    }

    void cutAndGrownPastTheOldPlaceIsNotNoticed()
    {
        write(logPath(), line("/1"));
        follow(logPath());
        m_collector->start();
        QVERIFY(waitForHits(1));
        QTRY_VERIFY(readOffset(logPath()) != u"0"_s);
        write(logPath(), line("/2") + line("/3"));
        QVERIFY(waitForHits(2));
        waitForTwoPasses();
        QCOMPARE(paths(), u"/1 /3"_s);
    }

    void windowsLineEnds()
    {
        write(logPath(), line("/1").chopped(1) + "\r\n\r\n" + line("/2").chopped(1) + "\r\n");
        follow(logPath());
        m_collector->start();
        QVERIFY(waitForHits(2));
        // The carriage return belongs to the last field, which is then no number.
        QCOMPARE(value(u"SELECT string_agg(response_us::text, ' ') FROM tarn.hits"_s), u"0 0"_s);
        QCOMPARE(m_collector->log(), QStringList());
    }

    void linesThatAreNoEntriesAreCountedAndPassed()
    {
        write(logPath(), line("/1") + "garbage\n\n  \n\"\"\n" + line("/2"));
        follow(logPath());
        m_collector->start();
        QVERIFY(waitForHits(2));
        QVERIFY(m_collector->waitForLog(u"collect: %1: 2 lines were not log entries"_s.arg(logPath())));
        QTRY_COMPARE(readOffset(logPath()).toLongLong(), QFile(logPath()).size());
        waitForTwoPasses();
        QCOMPARE(m_collector->log().size(), 1);
    }

    void missingLogIsWaitedForInSilence()
    {
        follow(logPath(u"not/there/access.log"_s));
        follow(logPath());
        m_collector->start();
        waitForTwoPasses();
        write(logPath(), line("/1"));
        QVERIFY(waitForHits(1));
        QCOMPARE(m_collector->log(), QStringList());
    }

    void directoryInPlaceOfALog()
    {
        QVERIFY(QDir(m_folder->path()).mkdir(u"folder"_s));
        write(logPath(), line("/1"));
        follow(logPath(u"folder"_s));
        follow(logPath());
        m_collector->start();
        QVERIFY(m_collector->waitForLog(u"collect: cannot read "_s + logPath(u"folder"_s)));
        QVERIFY(waitForHits(1));
    }

    void logThatMayNotBeRead()
    {
        const QString secret = logPath(u"secret.log"_s);
        write(secret, line("/1"));
        QVERIFY(QFile::setPermissions(secret, {}));
        write(logPath(), line("/2"));
        follow(secret);
        follow(logPath());
        m_collector->obeyFileModes();
        m_collector->start();
        QVERIFY(m_collector->waitForLog(u"collect: cannot read "_s + secret));
        QVERIFY(waitForHits(1));
        QVERIFY(QFile::setPermissions(secret, QFile::ReadOwner));
        QVERIFY(waitForHits(2));
    }

    void namedPipeIsNotOpened()
    {
        QCOMPARE(QProcess::execute(u"mkfifo"_s, {logPath(u"pipe"_s)}), 0);
        follow(logPath(u"pipe"_s));
        write(logPath(), line("/1"));
        follow(logPath());
        m_collector->start();
        QVERIFY(waitForHits(1)); // and does not wait for a writer
        QCOMPARE(m_collector->log(), QStringList());
    }

    void pathWithOddCharacters()
    {
        const QString path = logPath(u"Zugriffe für \"böse\" Leute.log"_s);
        write(path, line("/1"));
        follow(path);
        m_collector->start();
        QVERIFY(waitForHits(1));
    }

    void logsOfSeveralSites()
    {
        write(logPath(u"a.log"_s), line("/a"));
        write(logPath(u"b.log"_s), line("/b"));
        write(logPath(u"c.log"_s), line("/c"));
        follow(logPath(u"a.log"_s), 1);
        follow(logPath(u"b.log"_s), 2);
        follow(logPath(u"c.log"_s), 2);
        m_collector->start();
        QVERIFY(waitForHits(3));
        QCOMPARE(value(u"SELECT string_agg(site_id || path, ' ' ORDER BY path) FROM tarn.hits"_s),
                 u"1/a 2/b 2/c"_s);
    }

    void oneLogOfTwoSites()
    {
        write(logPath(), line("/1"));
        follow(logPath(), 1);
        follow(logPath(), 2);
        m_collector->start();
        QVERIFY(waitForHits(2));
        QCOMPARE(value(u"SELECT string_agg(site_id || path, ' ' ORDER BY site_id) FROM tarn.hits"_s),
                 u"1/1 2/1"_s);
    }

    void symbolicLinkIsFollowed()
    {
        write(logPath(u"real.log"_s), line("/1"));
        QVERIFY(QFile::link(logPath(u"real.log"_s), logPath()));
        follow(logPath());
        m_collector->start();
        QVERIFY(waitForHits(1));
        append(logPath(u"real.log"_s), line("/2"));
        QVERIFY(waitForHits(2));
        QCOMPARE(paths(), u"/1 /2"_s);
    }

    void siteThatIsRemovedIsFollowedNoMore()
    {
        write(logPath(), line("/1"));
        write(logPath(u"other.log"_s), line("/other"));
        follow(logPath(), 1);
        follow(logPath(u"other.log"_s), 2);
        m_collector->start();
        QVERIFY(waitForHits(2));
        run(u"DELETE FROM tarn.sites WHERE id = 1"_s);
        append(logPath(), line("/2"));
        append(logPath(u"other.log"_s), line("/more"));
        QVERIFY(waitForHits(3));
        waitForTwoPasses();
        QCOMPARE(paths(), u"/1 /more /other"_s);
        QCOMPARE(m_collector->log(), QStringList());
    }

    void emptyLinesCostNothing()
    {
        write(logPath(), QByteArray(kSliceBytes - 1, '\n') + '\n' + line("/1"));
        follow(logPath());
        m_collector->start();
        QVERIFY(waitForHits(1));
        QTRY_COMPARE(readOffset(logPath()).toLongLong(), kSliceBytes + line("/1").size());
        QCOMPARE(m_collector->log(), QStringList());
    }

    void backlogIsReadInSlices()
    {
        // Long lines, so that few rows make much log.
        const QByteArray agent(60'000, 'x');
        QByteArray text;
        for (int i = 0; text.size() <= kSliceBytes; ++i)
            text += line('/' + QByteArray::number(i), agent);
        const auto lines = static_cast<int>(text.count('\n'));
        write(logPath(), text);
        follow(logPath());
        m_collector->start();
        QVERIFY(waitForHits(lines - 1));
        // The first slice ends with the last line that is whole in it: one line before the end.
        QCOMPARE(value(u"SELECT count(*) FROM tarn.hits"_s).toInt(), lines - 1);
        QVERIFY(waitForHits(lines));
        QTRY_COMPARE(readOffset(logPath()).toLongLong(), text.size());
        QCOMPARE(value(u"SELECT count(DISTINCT path) FROM tarn.hits"_s).toInt(), lines);
    }

    void lineAsLongAsASlice()
    {
        QByteArray longest = line("/longest");
        longest.insert(longest.indexOf("curl"), QByteArray(kSliceBytes - longest.size(), 'x'));
        QCOMPARE(longest.size(), kSliceBytes);
        write(logPath(), longest);
        follow(logPath());
        m_collector->start();
        QVERIFY(waitForHits(1));
        QCOMPARE(paths(), u"/longest"_s);
    }

    void lineLongerThanASliceStopsItsOwnSourceOnly()
    {
        QByteArray tooLong = line("/too-long");
        tooLong.insert(tooLong.indexOf("curl"), QByteArray(kSliceBytes - tooLong.size() + 1, 'x'));
        write(logPath(u"long.log"_s), tooLong + line("/behind"));
        follow(logPath(u"long.log"_s));
        write(logPath(), line("/other"));
        follow(logPath());
        m_collector->start();
        QVERIFY(waitForHits(1));
        waitForTwoPasses();
        QCOMPARE(paths(), u"/other"_s);
        QCOMPARE(readOffset(logPath(u"long.log"_s)), u"0"_s);
        QCOMPARE(m_collector->log(),
                 QStringList{
                     u"collect: %1: a line is longer than 8388608 bytes; nothing from there on is read"_s.arg(
                         logPath(u"long.log"_s))});
    }

    void placeThatCannotBeStoredMeansReadingAgain()
    {
        run(u"CREATE FUNCTION refuse() RETURNS trigger LANGUAGE plpgsql AS 'BEGIN RAISE ''no''; END'"_s);
        run(u"CREATE TRIGGER refuse BEFORE UPDATE ON tarn.log_sources EXECUTE FUNCTION refuse()"_s);
        write(logPath(), line("/1"));
        follow(logPath());
        m_collector->start();
        QVERIFY(m_collector->waitForLog(u"sql: ERROR:  no"_s, 2));
        QVERIFY(value(u"SELECT count(*) FROM tarn.hits"_s).toInt() >= 2);
        run(u"DROP TRIGGER refuse ON tarn.log_sources"_s);
        QTRY_COMPARE_WITH_TIMEOUT(readOffset(logPath()).toLongLong(), line("/1").size(), 10'000);
    }

    void killedAtAnyMomentItLosesNothing()
    {
        follow(logPath());
        QByteArray text;
        int lines = 0;
        for (int round = 0; round < 8; ++round) {
            QByteArray more;
            for (int i = 0; i < 3'000; ++i)
                more += line('/' + QByteArray::number(++lines));
            append(logPath(), more);
            m_collector->start();
            // Anywhere from before the first statement to after the last.
            QTest::qWait(50 + 60 * round);
            m_collector->kill();
        }
        m_collector->start();
        const auto everyLine = [&] {
            return value(u"SELECT count(DISTINCT path) FROM tarn.hits"_s).toInt() == lines;
        };
        QVERIFY2(QTest::qWaitFor(everyLine, 60'000),
                 qPrintable(value(u"SELECT count(DISTINCT path) FROM tarn.hits"_s)));
    }
};

QTEST_GUILESS_MAIN(tst_Following)
#include "tst_Following.moc"
