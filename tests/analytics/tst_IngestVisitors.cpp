#include "analytics/IngestTest.h"

#include <QCryptographicHash>
#include <QTimeZone>

using namespace Qt::Literals::StringLiterals;
using namespace tarn;
using namespace tarn::test;

/// Who is a visitor, and what is a session.
class tst_IngestVisitors : public IngestTest
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { beginProgram(); }
    void init() { beginTest(); }
    void cleanup() { endTest(); }

    void visitorHash_data()
    {
        QTest::addColumn<int>("site");
        QTest::addColumn<QString>("ip");
        QTest::addColumn<QByteArray>("agent");
        QTest::addColumn<QDate>("day");
        QTest::newRow("other-site") << 2 << u"192.0.2.1"_s << kFirefox << QDate(2024, 10, 10);
        QTest::newRow("other-address") << 1 << u"192.0.2.2"_s << kFirefox << QDate(2024, 10, 10);
        QTest::newRow("other-agent") << 1 << u"192.0.2.1"_s << QByteArray("curl/8.0") << QDate(2024, 10, 10);
        QTest::newRow("other-day") << 1 << u"192.0.2.1"_s << kFirefox << QDate(2024, 10, 11);
    }
    void visitorHash()
    {
        QFETCH(const int, site);
        QFETCH(const QString, ip);
        QFETCH(const QByteArray, agent);
        QFETCH(const QDate, day);
        const QByteArray usual = m_ingest->visitorHash(1, u"192.0.2.1"_s, kFirefox, QDate(2024, 10, 10));
        QCOMPARE(usual.size(), 8);
        QVERIFY(m_ingest->visitorHash(site, ip, agent, day) != usual);
        QCOMPARE(m_ingest->visitorHash(1, u"192.0.2.1"_s, kFirefox, QDate(2024, 10, 10)), usual);
    }

    void visitorHashIsTheStatedOne()
    {
        run(u"UPDATE tarn.settings SET value = 'pepper' WHERE key = 'visitor_secret'"_s);
        startAnew();
        const QByteArray digest =
            QCryptographicHash::hash("pepper2024-02-0912192.0.2.1agent", QCryptographicHash::Sha256);
        QCOMPARE(m_ingest->visitorHash(12, u"192.0.2.1"_s, "agent", QDate(2024, 2, 9)), digest.first(8));
    }

    /// The secret goes into the hash by its bytes in Latin-1, the agent as it was sent.
    void bytesBeyondAsciiInTheHash()
    {
        run(u"UPDATE tarn.settings SET value = U&'pf\\00E4ffer' WHERE key = 'visitor_secret'"_s);
        startAnew();
        const QByteArray agent = "caf\xc3\xa9 \xff";
        ingest({withAgent(agent)});
        const QByteArray digest = QCryptographicHash::hash("pf\xe4" + ("ffer2024-10-101192.0.2.1" + agent),
                                                           QCryptographicHash::Sha256);
        QCOMPARE(ofEachHit(u"encode(visitor, 'hex')"_s), QString::fromLatin1(digest.first(8).toHex()));
    }

    void theVisitorIsThatOfTheSite()
    {
        const QByteArray line = Line{}.text();
        m_ingest->ingest(1, u"example.org"_s, {line});
        m_ingest->ingest(2, u"example.net"_s, {line});
        QByteArrayList visitors;
        for (const int site : {1, 2})
            visitors += m_ingest->visitorHash(site, u"192.0.2.1"_s, kFirefox, QDate(2024, 10, 10)).toHex();
        QCOMPARE(ofEachHit(u"encode(visitor, 'hex')"_s), QString::fromLatin1(visitors.join('|')));
    }

    void visitorChangesAtMidnightUtcWhateverTheLocalZone()
    {
        qputenv("TZ", "America/New_York");
        tzset();
        const auto result = ingest({Line{.time = "10/Oct/2024:23:59:00 +0000"}.text(),
                                    Line{.time = "11/Oct/2024:00:01:00 +0000"}.text()});
        QCOMPARE(scalar(u"SELECT count(DISTINCT visitor) FROM tarn.hits"_s), u"2"_s);
        QCOMPARE(scalar(u"SELECT count(DISTINCT session_id) FROM tarn.hits"_s), u"2"_s);
        QCOMPARE(result.days, QSet<QDate>{QDate(2024, 10, 10)}); // local days
    }

    void sessionGap_data()
    {
        QTest::addColumn<QList<QByteArray>>("times");
        QTest::addColumn<QString>("sessions");
        QTest::newRow("half-an-hour") << QList<QByteArray>{"10:00:00", "10:30:00"} << u"1"_s;
        QTest::newRow("half-an-hour-and-a-second") << QList<QByteArray>{"10:00:00", "10:30:01"} << u"2"_s;
        QTest::newRow("out-of-order") << QList<QByteArray>{"12:00:00", "10:00:00"} << u"1"_s;
        QTest::newRow("an-older-hit-does-not-shorten-it")
            << QList<QByteArray>{"12:00:00", "10:00:00", "12:30:00"} << u"1"_s;
        QTest::newRow("each-hit-extends-it")
            << QList<QByteArray>{"10:00:00", "10:20:00", "10:40:00", "11:00:00"} << u"1"_s;
    }
    void sessionGap()
    {
        QFETCH(const QList<QByteArray>, times);
        QFETCH(const QString, sessions);
        QList<QByteArray> lines;
        for (const QByteArray& time : times)
            lines.append(lineAt(time));
        ingest(lines);
        QCOMPARE(scalar(u"SELECT count(DISTINCT session_id) FROM tarn.hits"_s), sessions);
    }

    void sessionsOutliveACall()
    {
        ingest({lineAt("10:00:00")});
        ingest({lineAt("10:10:00")});
        QCOMPARE(scalar(u"SELECT count(DISTINCT session_id) FROM tarn.hits"_s), u"1"_s);
        startAnew();
        ingest({lineAt("10:20:00")});
        QCOMPARE(scalar(u"SELECT count(DISTINCT session_id) FROM tarn.hits"_s), u"2"_s);
    }

    void sessionsGetTheirNumbersInTheOrderOfTheLines()
    {
        useCountries();
        QList<QByteArray> lines;
        for (const int visitor : {1, 2, 1, 3, 2, 200, 4})
            lines.append(Line{.ip = "192.0.2." + QByteArray::number(visitor)}.text());
        lines.insert(3, Line{.ip = "192.0.2.1", .time = "10/Oct/2024:15:00:00 +0000"}.text());
        QCOMPARE(ingest(lines).stored, 8);
        QCOMPARE(scalar(u"SELECT string_agg(session_id::text, ' ' ORDER BY ctid) FROM tarn.hits"_s),
                 u"1 2 1 3 4 2 5 6"_s);
        QCOMPARE(scalar(u"SELECT string_agg(coalesce(country, '-'), ' ' ORDER BY ctid) FROM tarn.hits"_s),
                 u"DE DE DE DE DE DE - DE"_s);
        QCOMPARE(scalar(u"SELECT last_value FROM tarn.session_seq"_s), u"6"_s); // none more was asked for
    }

    void sessionWithoutASequence()
    {
        run(u"ALTER SEQUENCE tarn.session_seq RENAME TO away"_s);
        expectSqlWarning(u"tarn.session_seq"_s); // one for both lines
        QCOMPARE(ingest({lineAt("10:00:00"), lineAt("10:00:01")}).stored, 2);
        QCOMPARE(scalar(u"SELECT string_agg(session_id::text, ' ') FROM tarn.hits"_s), u"0 0"_s);
        run(u"ALTER SEQUENCE tarn.away RENAME TO session_seq"_s);
        ingest({lineAt("10:00:02")});
        QCOMPARE(scalar(u"SELECT count(*) FROM tarn.hits WHERE session_id > 0"_s), u"1"_s);
    }

    void anExpiredSessionWithoutASuccessorIsNotContinued()
    {
        const QDateTime at(QDate(2024, 10, 10), QTime(10, 0), Qt::UTC);
        const qint64 first = m_ingest->sessionFor("visitor-", at);
        QVERIFY(first > 0);
        run(u"ALTER SEQUENCE tarn.session_seq RENAME TO away"_s);
        expectSqlWarning(u"tarn.session_seq"_s);
        QCOMPARE(m_ingest->sessionFor("visitor-", at.addSecs(1'801)), 0);
        run(u"ALTER SEQUENCE tarn.away RENAME TO session_seq"_s);
        QVERIFY(m_ingest->sessionFor("visitor-", at.addSecs(1'802)) > first);
    }

    void sessionsArePrunedPastTheirNumber_data()
    {
        QTest::addColumn<int>("visitors");
        QTest::addColumn<bool>("pruned");
        QTest::newRow("as-many-as-are-kept") << 50'000 << false;
        QTest::newRow("one-more") << 50'001 << true;
    }
    void sessionsArePrunedPastTheirNumber()
    {
        QFETCH(const int, visitors);
        QFETCH(const bool, pruned);
        const QDateTime longAgo(QDate(2015, 5, 17), QTime(10, 0), Qt::UTC);
        const QDateTime now = QDateTime::currentDateTimeUtc();
        const qint64 old = m_ingest->sessionFor("visitor-", longAgo);
        const qint64 fresh = m_ingest->sessionFor("fresh---", now);
        for (int i = 2; i < visitors; ++i)
            m_ingest->sessionFor(QByteArray::number(i).rightJustified(8, '0'), longAgo);
        ingest({});
        QCOMPARE(m_ingest->sessionFor("visitor-", longAgo) != old, pruned);
        QCOMPARE(m_ingest->sessionFor("fresh---", now), fresh);
    }

    /// Sessions are pruned when there are more than 50,000; those that can still go on are left.
    void sessionsThatCanGoOnAreNotPruned()
    {
        const QDateTime longAgo(QDate(2015, 5, 17), QTime(10, 0), Qt::UTC);
        for (int i = 0; i < 49'999; ++i)
            m_ingest->sessionFor(QByteArray::number(i).rightJustified(8, '0'), longAgo);
        const QDateTime now = QDateTime::currentDateTimeUtc();
        const QDateTime recent = now.addSecs(-1'790);
        const QDateTime older = now.addSecs(-1'810);
        const qint64 kept = m_ingest->sessionFor("kept----", recent);
        const qint64 gone = m_ingest->sessionFor("gone----", older);
        m_ingest->ingest(1, u"example.org"_s, {});
        QCOMPARE(m_ingest->sessionFor("kept----", recent), kept);
        QVERIFY(m_ingest->sessionFor("gone----", older) != gone);
    }
};

QTEST_GUILESS_MAIN(tst_IngestVisitors)
#include "tst_IngestVisitors.moc"
