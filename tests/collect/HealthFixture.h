// What the tests of Health share: the product's session on a fresh database, and a settings file that makes
// no check bad and asks nobody outside.
#pragma once

#include "collect/Health.h"
#include "support/ProductSession.h"

#include <QMap>
#include <QRegularExpression>
#include <QSettings>
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
            {u"health/apache_status_url"_s,   QString()        },
            {u"health/services"_s,            QString()        },
            {u"health/disk_alert_pct"_s,      1000             },
            {u"health/memory_alert_pct"_s,    1000             },
            {u"health/load_alert_per_cpu"_s,  1e9              },
            {u"health/temperature_alert_c"_s, 1e9              },
            {u"notify/host_name"_s,           u"host.example"_s},
            {u"notify/webhook_format"_s,      u"json"_s        },
        };
        return session.open();
    }

    /// Ends what init() has begun.
    void cleanup() { session.close(); }

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

    static QString scalar(const QString& statement) { return test::scalar(statement); }
    static void run(const QString& statement) { test::run(statement); }

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
    ProductSession session{server};
    QTemporaryDir folder;
    QMap<QString, QVariant> settings;

private:
    int m_files = 0;
};

/// The log line of an alert that opens with @p text is to come.
inline void expectAlert(const QString& text)
{
    QTest::ignoreMessage(QtWarningMsg, qPrintable(QStringLiteral("alert: ") + text));
}

/// The log line of an alert that ends with @p text is to come.
inline void expectCleared(const QString& text)
{
    QTest::ignoreMessage(QtInfoMsg, qPrintable(QStringLiteral("alert cleared: ") + text));
}

} // namespace tarn::test
