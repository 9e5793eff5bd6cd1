// What the tests of the report's readers share: the product's session on a database that demo/year.sql has
// filled.
#pragma once

#include "report/Query.h"
#include "support/ProductSession.h"

namespace tarn::test {

class ReportFixture
{
public:
    /// Starts the server and fills a database that the tests clone.
    bool start()
    {
        using namespace Qt::Literals::StringLiterals;
        if (!server.start())
            return false;
        m_database = server.createDatabase();
        const QString errors = server.runFile(m_database, QStringLiteral(TARN_DEMO_DIR "/year.sql"));
        if (!errors.isEmpty())
            qWarning("%s", qPrintable(errors));
        return errors.isEmpty();
    }

    /// Opens the session on the filled database, or on an empty one.
    bool openFilled()
    {
        return session.open({
            {QStringLiteral("database/name"), m_database}
        });
    }
    bool openEmpty() { return session.open(); }

    PostgresServer server;
    ProductSession session{server};

private:
    QString m_database;
};

} // namespace tarn::test
