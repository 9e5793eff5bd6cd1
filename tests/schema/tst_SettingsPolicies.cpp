// Who sees and sets which key of tarn.settings, the visitor secret above all.
#include "Probe.h"
#include "support/PostgresServer.h"

#include <QRegularExpression>
#include <QSqlDatabase>
#include <QSqlQuery>
#include <QTest>

using namespace Qt::Literals::StringLiterals;
using namespace tarn;

namespace {

const auto kDenied = u"42501"_s;
const auto kRoles = {u"tarn_collect"_s, u"tarn_panel"_s, u"tarn_reader"_s, u"curious"_s};

QString upsert(const QString& key, const QString& value)
{
    return u"INSERT INTO tarn.settings VALUES ('%1', '%2') ON CONFLICT (key) DO UPDATE SET value = excluded.value"_s
        .arg(key, value);
}

} // namespace

class tst_SettingsPolicies : public QObject
{
    Q_OBJECT

private:
    static QSqlDatabase session() { return QSqlDatabase::database(u"session"_s); }

    static QString scalar(const QString& statement) { return test::value(session(), statement); }
    static void run(const QString& statement) { test::run(session(), statement); }

    static QString keys(const QSqlDatabase& database)
    {
        return test::value(database, u"SELECT string_agg(key, ' ' ORDER BY key) FROM tarn.settings"_s);
    }

    QSqlDatabase sessionOf(const QString& role) const
    {
        return m_server.connect(session().databaseName(), u"other"_s, role);
    }

    test::PostgresServer m_server;

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(m_server.start());
        const QSqlDatabase admin = m_server.connect(u"postgres"_s, u"admin"_s);
        for (const QString& role : kRoles)
            test::run(admin, u"CREATE ROLE %1 LOGIN"_s.arg(role));
    }

    void init()
    {
        QTest::failOnWarning(QRegularExpression(u".?"_s));
        QVERIFY(m_server.connect(m_server.createDatabase(), u"session"_s).isOpen());
        QCOMPARE(m_server.runFile(session().databaseName(), test::schemaFile(u"grants.sql"_s),
                                  {u"-v"_s, u"collector=tarn_collect"_s, u"-v"_s, u"panel=tarn_panel"_s,
                                   u"-v"_s, u"reader=tarn_reader"_s}),
                 QString());
        // All rights on the table, and none on any other.
        run(u"GRANT CONNECT ON DATABASE %1 TO curious"_s.arg(session().databaseName()));
        run(u"GRANT USAGE ON SCHEMA tarn TO curious"_s);
        run(u"GRANT ALL ON tarn.settings TO curious"_s);
        run(u"INSERT INTO tarn.settings VALUES ('geoip_month', '2024-05'), ('raw_hit_days', '90'), "
            "('mail_password', 'xyzzy')"_s);
    }

    void cleanup()
    {
        run(u"DROP OWNED BY tarn_collect, tarn_panel, tarn_reader, curious"_s);
        QSqlDatabase::removeDatabase(u"other"_s);
        QSqlDatabase::removeDatabase(u"session"_s);
    }

    void cleanupTestCase() { QSqlDatabase::removeDatabase(u"admin"_s); }

    void keysThatARoleSees_data()
    {
        QTest::addColumn<QString>("role");
        QTest::addColumn<QString>("seen");
        QTest::newRow("collector") << u"tarn_collect"_s << u"geoip_month raw_hit_days visitor_secret"_s;
        QTest::newRow("panel") << u"tarn_panel"_s << u"geoip_month mail_password raw_hit_days"_s;
        QTest::newRow("reader") << u"tarn_reader"_s << u"geoip_month raw_hit_days"_s;
        QTest::newRow("all-rights-on-the-table")
            << u"curious"_s << u"geoip_month mail_password raw_hit_days"_s;
        QTest::newRow("superuser") << u"postgres"_s
                                   << u"geoip_month mail_password raw_hit_days visitor_secret"_s;
    }
    void keysThatARoleSees()
    {
        QFETCH(const QString, role);
        QFETCH(const QString, seen);
        QCOMPARE(keys(sessionOf(role)), seen);
    }

    void statisticsGiveNoValueAway()
    {
        run(u"ANALYZE tarn.settings"_s);
        const auto values =
            u"SELECT count(*) FROM pg_stats WHERE schemaname = 'tarn' AND tablename = 'settings'"_s;
        QVERIFY(scalar(values).toInt() > 0);
        for (const QString& role : kRoles)
            QCOMPARE(test::value(sessionOf(role), values), u"0"_s);
    }

    void settingsThatARoleMakes_data()
    {
        QTest::addColumn<QString>("role");
        QTest::addColumn<QString>("set");
        QTest::newRow("collector") << u"tarn_collect"_s << u"geoip_month"_s;
        QTest::newRow("panel") << u"tarn_panel"_s << u"geoip_month mail_password new_key raw_hit_days"_s;
        QTest::newRow("reader") << u"tarn_reader"_s << u""_s;
        QTest::newRow("all-rights-on-the-table")
            << u"curious"_s << u"geoip_month mail_password new_key raw_hit_days"_s;
        QTest::newRow("superuser") << u"postgres"_s
                                   << u"geoip_month mail_password new_key raw_hit_days visitor_secret"_s;
    }
    void settingsThatARoleMakes()
    {
        QFETCH(const QString, role);
        QFETCH(const QString, set);
        const QSqlDatabase database = sessionOf(role);
        QStringList made;
        for (const QString& key :
             {u"geoip_month"_s, u"mail_password"_s, u"new_key"_s, u"raw_hit_days"_s, u"visitor_secret"_s}) {
            const QString code = test::errorOf(database, upsert(key, u"7"_s));
            const bool stored =
                scalar(u"SELECT count(*) FROM tarn.settings WHERE key = '%1' AND value = '7'"_s.arg(key))
                == u"1"_s;
            QCOMPARE(code, stored ? QString() : kDenied);
            if (stored)
                made.append(key);
        }
        QCOMPARE(made.join(u' '), set);
    }

    /// By whatever statement: the secret stays as it is, and is the only one.
    void secretIsSetByNobodyElse_data()
    {
        QTest::addColumn<QString>("statement");
        QTest::newRow("update") << u"UPDATE tarn.settings SET value = 'known'"_s;
        QTest::newRow("update-by-key")
            << u"UPDATE tarn.settings SET value = 'known' WHERE key = 'visitor_secret'"_s;
        QTest::newRow("rename") << u"UPDATE tarn.settings SET key = 'shown' WHERE key = 'visitor_secret'"_s;
        QTest::newRow("rename-to-it")
            << u"UPDATE tarn.settings SET key = 'visitor_secret' WHERE key = 'raw_hit_days'"_s;
        QTest::newRow("delete") << u"DELETE FROM tarn.settings WHERE key = 'visitor_secret'"_s;
        QTest::newRow("upsert") << upsert(u"visitor_secret"_s, u"known"_s);
        QTest::newRow("upsert-nothing")
            << u"INSERT INTO tarn.settings VALUES ('visitor_secret', 'known') ON CONFLICT DO NOTHING"_s;
        QTest::newRow("upsert-of-another-key") << u"INSERT INTO tarn.settings VALUES ('geoip_month', 'x') "
                                                  "ON CONFLICT (key) DO UPDATE SET key = 'visitor_secret'"_s;
    }
    void secretIsSetByNobodyElse()
    {
        QFETCH(const QString, statement);
        const auto secret =
            u"SELECT string_agg(value, ' ') FROM tarn.settings WHERE key = 'visitor_secret'"_s;
        const QString before = scalar(secret);
        for (const QString& role : kRoles) {
            test::errorOf(sessionOf(role), statement);
            QCOMPARE(role + scalar(secret), role + before);
            QCOMPARE(scalar(u"SELECT count(*) FROM tarn.settings WHERE value = '%1'"_s.arg(before)), u"1"_s);
        }
    }

    void secretThatIsGoneIsMadeByNobodyElse()
    {
        run(u"DELETE FROM tarn.settings WHERE key = 'visitor_secret'"_s);
        for (const QString& role : kRoles)
            QCOMPARE(test::errorOf(sessionOf(role), upsert(u"visitor_secret"_s, u"known"_s)), kDenied);
    }

    void panelKeepsHitsForEver()
    {
        test::run(sessionOf(u"tarn_panel"_s), u"DELETE FROM tarn.settings WHERE key = 'raw_hit_days'"_s);
        QCOMPARE(scalar(u"SELECT count(*) FROM tarn.settings WHERE key = 'raw_hit_days'"_s), u"0"_s);
    }
};

QTEST_GUILESS_MAIN(tst_SettingsPolicies)
#include "tst_SettingsPolicies.moc"
