// What the tables refuse where people write.
#include "Probe.h"
#include "collect/Maintenance.h"
#include "support/PostgresServer.h"

#include <QRegularExpression>
#include <QSqlDatabase>
#include <QSqlQuery>
#include <QTest>

using namespace Qt::Literals::StringLiterals;
using namespace tarn;

namespace {

const auto kCheckFailed = u"23514"_s;

QString labels(qsizetype count, qsizetype last)
{
    return u"a."_s.repeated(count) + QString(last, u'b');
}

} // namespace

class tst_Checks : public QObject
{
    Q_OBJECT

private:
    static QSqlDatabase session() { return QSqlDatabase::database(u"session"_s); }

    /// The server's code for storing @p value with @p statement, whose "?" it is.
    static QString codeOf(const QString& statement, const QString& value)
    {
        QSqlQuery query(session());
        query.prepare(statement);
        query.addBindValue(value);
        return query.exec() ? QString() : query.lastError().nativeErrorCode();
    }

    test::PostgresServer m_server;

private Q_SLOTS:
    void initTestCase() { QVERIFY(m_server.start()); }

    void init()
    {
        QTest::failOnWarning(QRegularExpression(u".?"_s));
        QVERIFY(m_server.connect(m_server.createDatabase(), u"session"_s).isOpen());
    }

    void cleanup() { QSqlDatabase::removeDatabase(u"session"_s); }

    void host_data()
    {
        QTest::addColumn<QString>("host");
        QTest::addColumn<bool>("taken");
        QTest::newRow("name") << u"example.org"_s << true;
        QTest::newRow("one-label") << u"localhost"_s << true;
        QTest::newRow("one-character") << u"a"_s << true;
        QTest::newRow("www") << u"www.example.org"_s << true;
        QTest::newRow("hyphens-and-digits") << u"4-ever--2.example.org"_s << true;
        QTest::newRow("underscore") << u"_old.example.org"_s << true;
        QTest::newRow("encoded-label") << u"xn--mnchen-3ya.de"_s << true;
        QTest::newRow("other-letters") << u"münchen.de"_s << true;
        QTest::newRow("other-script") << u"例え.テスト"_s << true;
        QTest::newRow("address") << u"192.0.2.1"_s << true;
        QTest::newRow("longest-label") << QString(63, u'a') + u".de"_s << true;
        QTest::newRow("longest-name") << labels(126, 1) << true;
        QTest::newRow("label-plus-one") << QString(64, u'a') + u".de"_s << false;
        QTest::newRow("name-plus-one") << labels(126, 2) << false;
        QTest::newRow("empty") << u""_s << false;
        QTest::newRow("capital") << u"Example.org"_s << false;
        QTest::newRow("capital-of-other-letters") << u"mÜnchen.de"_s << false;
        QTest::newRow("blank") << u"example.org "_s << false;
        QTest::newRow("blank-inside") << u"example org"_s << false;
        QTest::newRow("line-feed") << u"example.org\n"_s << false;
        QTest::newRow("no-break-space") << u"example.org\u00a0"_s << false;
        QTest::newRow("ideographic-space") << u"example\u3000.org"_s << false;
        QTest::newRow("zero-width-space") << u"exam\u200bple.org"_s << false;
        QTest::newRow("byte-order-mark") << u"\ufeffexample.org"_s << false;
        QTest::newRow("right-to-left-mark") << u"exam\u202eple.org"_s << false;
        QTest::newRow("port") << u"example.org:8080"_s << false;
        QTest::newRow("scheme") << u"https://example.org"_s << false;
        QTest::newRow("slash-at-the-end") << u"example.org/"_s << false;
        QTest::newRow("user") << u"me@example.org"_s << false;
        QTest::newRow("wildcard") << u"*.example.org"_s << false;
        QTest::newRow("two-names") << u"example.org,example.net"_s << false;
        QTest::newRow("bracketed-address") << u"[2001:db8::1]"_s << false;
        QTest::newRow("percent-sign") << u"m%C3%BCnchen.de"_s << false;
        QTest::newRow("dot-at-the-end") << u"example.org."_s << false;
        QTest::newRow("dot-at-the-start") << u".example.org"_s << false;
        QTest::newRow("two-dots") << u"example..org"_s << false;
        QTest::newRow("hyphen-first") << u"-example.org"_s << false;
        QTest::newRow("hyphen-first-in-a-label") << u"www.-example.org"_s << false;
        QTest::newRow("hyphen-last-in-a-label") << u"example-.org"_s << false;
        QTest::newRow("hyphen-last") << u"example.org-"_s << false;
    }
    void host()
    {
        QFETCH(const QString, host);
        QFETCH(const bool, taken);
        QCOMPARE(codeOf(u"INSERT INTO tarn.sites (host) VALUES (?)"_s, host),
                 taken ? QString() : kCheckFailed);
    }

    void logPath_data()
    {
        QTest::addColumn<QString>("path");
        QTest::addColumn<bool>("taken");
        QTest::newRow("absolute") << u"/var/log/apache2/access.log"_s << true;
        QTest::newRow("blank-inside") << u"/srv/my site/access log"_s << true;
        QTest::newRow("shortest") << u"/a"_s << true;
        QTest::newRow("relative") << u"access.log"_s << false;
        QTest::newRow("relative-to-here") << u"./access.log"_s << false;
        QTest::newRow("home") << u"~/access.log"_s << false;
        QTest::newRow("blank-first") << u" /var/log/access.log"_s << false;
        QTest::newRow("blank-last") << u"/var/log/access.log "_s << false;
        QTest::newRow("line-feed-last") << u"/var/log/access.log\n"_s << false;
        QTest::newRow("folder") << u"/var/log/apache2/"_s << false;
        QTest::newRow("root") << u"/"_s << false;
        QTest::newRow("address") << u"file:///var/log/access.log"_s << false;
        QTest::newRow("empty") << u""_s << false;
    }
    void logPath()
    {
        QFETCH(const QString, path);
        QFETCH(const bool, taken);
        test::run(session(), u"INSERT INTO tarn.sites (id, host) VALUES (1, 'example.org')"_s);
        QCOMPARE(codeOf(u"INSERT INTO tarn.log_sources (site_id, path) VALUES (1, ?)"_s, path),
                 taken ? QString() : kCheckFailed);
    }

    void rawHitDays_data()
    {
        QTest::addColumn<QString>("days");
        QTest::addColumn<bool>("taken");
        QTest::newRow("days") << u"90"_s << true;
        QTest::newRow("for-ever") << u"0"_s << true;
        QTest::newRow("negative") << u"-1"_s << true;
        QTest::newRow("most") << u"999999"_s << true;
        QTest::newRow("most-plus-one") << u"1000000"_s << false;
        QTest::newRow("least") << u"-999999"_s << true;
        QTest::newRow("least-minus-one") << u"-1000000"_s << false;
        QTest::newRow("with-unit") << u"90 days"_s << false;
        QTest::newRow("word") << u"a year"_s << false;
        QTest::newRow("fraction") << u"1.5"_s << false;
        QTest::newRow("plus") << u"+90"_s << false;
        QTest::newRow("blank-last") << u"90 "_s << false;
        QTest::newRow("line-feed-last") << u"90\n"_s << false;
        QTest::newRow("other-digits") << u"٩٠"_s << false;
        QTest::newRow("sign-only") << u"-"_s << false;
        QTest::newRow("empty") << u""_s << false;
    }
    void rawHitDays()
    {
        QFETCH(const QString, days);
        QFETCH(const bool, taken);
        const QString expected = taken ? QString() : kCheckFailed;
        QCOMPARE(codeOf(u"INSERT INTO tarn.settings VALUES ('raw_hit_days', ?)"_s, days), expected);
        test::run(session(), u"INSERT INTO tarn.settings VALUES ('raw_hit_days', '1') "
                             "ON CONFLICT (key) DO UPDATE SET value = '1'"_s);
        QCOMPARE(codeOf(u"UPDATE tarn.settings SET value = ? WHERE key = 'raw_hit_days'"_s, days), expected);
        QCOMPARE(codeOf(u"INSERT INTO tarn.settings VALUES ('another_key', ?)"_s, days), QString());
        if (taken) // what retention does with it
            QCOMPARE(test::errorOf(session(),
                                   QString(kOldHitDeletion).replace(u"?"_s, u"(%1)"_s.arg(kRetentionQuery))),
                     QString());
    }

    void userName_data()
    {
        QTest::addColumn<QString>("name");
        QTest::addColumn<bool>("taken");
        QTest::newRow("name") << u"alice"_s << true;
        QTest::newRow("longest") << QString(63, u'a') << true;
        QTest::newRow("longest-plus-one") << QString(64, u'a') << false;
        QTest::newRow("bytes-count") << QString(32, u'ä') << false;
        QTest::newRow("empty") << u""_s << false;
    }
    void userName()
    {
        QFETCH(const QString, name);
        QFETCH(const bool, taken);
        QCOMPARE(codeOf(u"INSERT INTO tarn.accounts (username, domain) VALUES (?, 'a.example')"_s, name),
                 taken ? QString() : kCheckFailed);
    }
};

QTEST_GUILESS_MAIN(tst_Checks)
#include "tst_Checks.moc"
