// tarn.add_site: registering a site and its logs by one call.
#include "Probe.h"
#include "support/PostgresServer.h"

#include <QRegularExpression>
#include <QSqlDatabase>
#include <QSqlQuery>
#include <QTest>

using namespace Qt::Literals::StringLiterals;
using namespace tarn;

class tst_Sites : public QObject
{
    Q_OBJECT

private:
    static QSqlDatabase session() { return QSqlDatabase::database(u"session"_s); }
    static QString scalar(const QString& statement) { return test::value(session(), statement); }

    /// The id that the call returns, else the server's code, message and hint.
    static QString added(const QVariant& host, const QVariant& path)
    {
        QSqlQuery query(session());
        query.prepare(u"SELECT tarn.add_site(?, ?)"_s);
        query.addBindValue(host);
        query.addBindValue(path);
        if (query.exec())
            return query.next() ? query.value(0).toString() : u"no row"_s;
        return query.lastError().nativeErrorCode() + u' ' + query.lastError().databaseText();
    }

    /// All that is registered: "HOST PATH" for each log.
    static QString registered()
    {
        return scalar(u"SELECT coalesce(string_agg(concat_ws(' ', host, path), ', ' ORDER BY l.id), '') "
                      "FROM tarn.sites s LEFT JOIN tarn.log_sources l ON l.site_id = s.id"_s);
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

    void aSiteAndItsLog()
    {
        const QString id = added(u"example.org"_s, u"/var/log/a.log"_s);
        QCOMPARE(id, scalar(u"SELECT id FROM tarn.sites"_s));
        QCOMPARE(registered(), u"example.org /var/log/a.log"_s);
    }

    void theHostIsFolded()
    {
        const QString id = added(u"WWW.Example.ORG"_s, u"/a.log"_s);
        QCOMPARE(registered(), u"www.example.org /a.log"_s);
        QCOMPARE(added(u"www.example.org"_s, u"/a.log"_s), id);
        QCOMPARE(added(u"MÜNCHEN.de"_s, u"/b.log"_s).toInt(), id.toInt() + 1);
        QCOMPARE(registered(), u"www.example.org /a.log, münchen.de /b.log"_s);
    }

    void aFurtherLog()
    {
        const QString id = added(u"example.org"_s, u"/a.log"_s);
        QCOMPARE(added(u"Example.org"_s, u"/b.log"_s), id);
        QCOMPARE(registered(), u"example.org /a.log, example.org /b.log"_s);
    }

    void againChangesNothing()
    {
        const QString id = added(u"example.org"_s, u"/a.log"_s);
        test::run(session(), u"UPDATE tarn.log_sources SET inode = 7, read_offset = 9"_s);
        const auto rows = u"SELECT concat(s, l, s.xmin, l.xmin) FROM tarn.sites s, tarn.log_sources l"_s;
        const QString before = scalar(rows);
        QCOMPARE(added(u"example.org"_s, u"/a.log"_s), id);
        QCOMPARE(scalar(rows), before);
        // No number was used up either.
        QCOMPARE(added(u"example.net"_s, u"/a.log"_s).toInt(), id.toInt() + 1);
    }

    void refused_data()
    {
        QTest::addColumn<QVariant>("host");
        QTest::addColumn<QVariant>("path");
        QTest::addColumn<QString>("reason");
        const QVariant host(u"example.org"_s);
        const QVariant path(u"/a.log"_s);
        const QVariant null{QMetaType::fromType<QString>()};
        const auto noHost = uR"(23514 ERROR:  "%1" is no host name)"_s;
        const auto noPath = uR"(23514 ERROR:  "%1" is no absolute path of a log file)"_s;
        const auto nothing = u"22004 ERROR:  a site wants a host and the path of its log"_s;
        QTest::newRow("address") << QVariant(u"https://Example.org/"_s) << path
                                 << noHost.arg(u"https://Example.org/"_s);
        QTest::newRow("port") << QVariant(u"example.org:80"_s) << path << noHost.arg(u"example.org:80"_s);
        QTest::newRow("empty-host") << QVariant(u""_s) << path << noHost.arg(QString());
        QTest::newRow("relative-path") << host << QVariant(u"logs/a.log"_s) << noPath.arg(u"logs/a.log"_s);
        QTest::newRow("folder") << host << QVariant(u"/var/log/"_s) << noPath.arg(u"/var/log/"_s);
        QTest::newRow("empty-path") << host << QVariant(u""_s) << noPath.arg(QString());
        QTest::newRow("exchanged") << path << host << noHost.arg(u"/a.log"_s);
        QTest::newRow("null-host") << null << path << nothing;
        QTest::newRow("null-path") << host << null << nothing;
    }
    void refused()
    {
        QFETCH(const QVariant, host);
        QFETCH(const QVariant, path);
        QFETCH(const QString, reason);
        const QString answer = added(host, path);
        QVERIFY2(answer.startsWith(reason + u'\n'), qPrintable(answer));
        QVERIFY2(answer.contains(u"HINT: "_s) && answer.contains(u"example.org"_s), qPrintable(answer));
        QCOMPARE(registered(), QString());
    }

    /// A message of a check that the function does not know is the server's own.
    void otherChecks()
    {
        test::run(session(), u"ALTER TABLE tarn.sites ADD CONSTRAINT other CHECK (host <> 'example.org')"_s);
        const QString answer = added(u"example.org"_s, u"/a.log"_s);
        QVERIFY2(answer.contains(u"violates check constraint \"other\""_s), qPrintable(answer));
    }
};

QTEST_GUILESS_MAIN(tst_Sites)
#include "tst_Sites.moc"
