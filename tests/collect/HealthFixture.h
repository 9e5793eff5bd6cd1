// What the tests of Health share: the product's session on a fresh database, and a settings file that makes
// no check bad and asks nobody outside.
#pragma once

#include "collect/Health.h"
#include "common/Db.h"
#include "support/PostgresServer.h"

#include <QMap>
#include <QRegularExpression>
#include <QSettings>
#include <QSqlDatabase>
#include <QTemporaryDir>
#include <QTest>

#include <memory>

namespace tarn::test {

class HealthFixture
{
public:
    /// Opens the session and resets the settings.
    bool init()
    {
        using namespace Qt::Literals::StringLiterals;
        settings = {
            {u"database/host"_s,              server.socketFolder()  },
            {u"database/name"_s,              server.createDatabase()},
            {u"database/user"_s,              u"postgres"_s          },
            {u"health/apache_status_url"_s,   QString()              },
            {u"health/services"_s,            QString()              },
            {u"health/disk_alert_pct"_s,      1000                   },
            {u"health/memory_alert_pct"_s,    1000                   },
            {u"health/load_alert_per_cpu"_s,  1e9                    },
            {u"health/temperature_alert_c"_s, 1e9                    },
            {u"notify/host_name"_s,           u"host.example"_s      },
            {u"notify/webhook_format"_s,      u"json"_s              },
        };
        return db::open(*settingsFile(), u"tarn-collect"_s);
    }

    /// Ends what init() has begun; no statement may be left prepared, and no transaction open.
    void cleanup()
    {
        using namespace Qt::Literals::StringLiterals;
        if (session().isOpen()) {
            QCOMPARE(scalar(u"SELECT count(*) FROM pg_prepared_statements"_s), u"0"_s);
            QCOMPARE(scalar(u"SELECT now() = statement_timestamp()"_s), u"true"_s);
        }
        QSqlDatabase::removeDatabase(u"other"_s);
        QSqlDatabase::removeDatabase(QLatin1StringView(QSqlDatabase::defaultConnection));
    }

    /// The settings as the product reads them.
    std::unique_ptr<QSettings> settingsFile()
    {
        auto file = std::make_unique<QSettings>(folder.filePath(QStringLiteral("%1.ini").arg(++m_files)),
                                                QSettings::IniFormat);
        for (auto it = settings.cbegin(); it != settings.cend(); ++it)
            file->setValue(it.key(), it.value());
        file->sync();
        return std::make_unique<QSettings>(file->fileName(), QSettings::IniFormat);
    }

    std::unique_ptr<Health> makeHealth() { return std::make_unique<Health>(*settingsFile()); }

    static QSqlDatabase session() { return db::session(); }
    static QString scalar(const QString& statement) { return value(session(), statement); }
    static void run(const QString& statement) { test::run(session(), statement); }

    /// A session of somebody else on the same database.
    QSqlDatabase other() const { return server.connect(session().databaseName(), QStringLiteral("other")); }

    /// The alerts in the order of their opening, "kind|subject|message|open" each, a line an alert.
    static QString alerts()
    {
        return scalar(
            QStringLiteral("SELECT coalesce(string_agg(concat_ws('|', kind, subject, message, CASE WHEN "
                           "closed_at IS NULL THEN 'open' ELSE 'closed' END), E'\\n' ORDER BY id), '') "
                           "FROM tarn.alerts"));
    }

    /// Has each @p event ("INSERT", "UPDATE") on @p table fail.
    static void refuse(const QString& event, const QString& table)
    {
        run(QStringLiteral("CREATE OR REPLACE FUNCTION refuse() RETURNS trigger LANGUAGE plpgsql AS "
                           "$$ BEGIN RAISE 'refused by the test'; END $$"));
        run(QStringLiteral(
                "CREATE TRIGGER refuse BEFORE %1 ON tarn.%2 FOR EACH ROW EXECUTE FUNCTION refuse()")
                .arg(event, table));
    }
    static void allow(const QString& table) { run(QStringLiteral("DROP TRIGGER refuse ON tarn.") + table); }

    static void expectRefusal() { expectSqlError(QStringLiteral("refused by the test")); }
    static void expectSqlError(const QString& pattern)
    {
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression(QStringLiteral("^sql: .*") + pattern));
    }

    PostgresServer server;
    QTemporaryDir folder;
    QMap<QString, QVariant> settings;

private:
    int m_files = 0;
};

} // namespace tarn::test
