// What the tests of storing hits share: lines of an access log, and what the database holds of them. A test
// class inherits this one.
#pragma once

#include "analytics/Ingest.h"
#include "support/ProductSession.h"

#include <QObject>
#include <QRegularExpression>
#include <QSqlQuery>
#include <QTest>

#include <ctime>
#include <memory>

namespace tarn::test {

using namespace Qt::Literals::StringLiterals;
using analytics::Ingest;

inline const auto kFirefox =
    QByteArrayLiteral("Mozilla/5.0 (X11; Linux x86_64; rv:128.0) Gecko/20100101 Firefox/128.0");

/// The parts of a log line; what a test does not name is ordinary.
struct Line
{
    QByteArray ip = "192.0.2.1";
    QByteArray time = "10/Oct/2024:13:55:36 +0000";
    QByteArray request = "GET /about HTTP/1.1";
    QByteArray status = "200";
    QByteArray bytes = "2326";
    QByteArray referrer = "-";
    QByteArray agent = kFirefox;
    QByteArray rest = " 1234";

    QByteArray text() const
    {
        return ip + " - - [" + time + "] \"" + request + "\" " + status + ' ' + bytes + " \"" + referrer
               + "\" \"" + agent + '"' + rest;
    }
};

inline QByteArray lineAt(const QByteArray& clock)
{
    return Line{.time = "10/Oct/2024:" + clock + " +0000"}.text();
}

inline QByteArray withTarget(const QByteArray& target, const QByteArray& method = "GET")
{
    return Line{.request = method + ' ' + target + " HTTP/1.1"}.text();
}

inline QByteArray withReferrer(const QByteArray& referrer)
{
    return Line{.referrer = referrer}.text();
}

inline QByteArray withAgent(const QByteArray& agent)
{
    return Line{.agent = agent}.text();
}

inline QByteArray beaconLine(const QByteArray& query)
{
    return withTarget("/tarn-b" + query, "POST");
}

class IngestTest : public QObject
{
protected:
    void beginProgram() { QVERIFY(m_server.start()); }

    void beginTest()
    {
        QTest::failOnWarning(QRegularExpression(u".?"_s));
        QVERIFY(m_session.open());
        run(u"INSERT INTO tarn.sites (id, host) VALUES (1, 'example.org'), (2, 'example.net')"_s);
        startAnew();
    }

    void endTest()
    {
        m_ingest.reset();
        qputenv("TZ", "UTC");
        tzset();
        m_session.close();
    }

    void startAnew()
    {
        m_ingest = std::make_unique<Ingest>();
        QVERIFY(m_ingest->init());
    }

    /// Fills the country table and starts anew with it.
    void useCountries()
    {
        run(u"INSERT INTO tarn.geo_country VALUES ('192.0.2.0', '192.0.2.127', 'DE'), "
            "('198.51.100.0', '198.51.100.255', 'FR'), ('2001:db8::', '2001:db8::ffff', 'SE')"_s);
        startAnew();
    }

    /// Lines of the first site.
    Ingest::Result ingest(const QList<QByteArray>& lines)
    {
        return m_ingest->ingest(1, u"example.org"_s, lines);
    }

    static QString hitCount() { return scalar(u"SELECT count(*) FROM tarn.hits"_s); }

    /// @p expression of each hit as text, with '|' between, in the order of their storing.
    static QString ofEachHit(const QString& expression)
    {
        return scalar(u"SELECT string_agg((%1)::text, '|' ORDER BY ctid) FROM tarn.hits"_s.arg(expression));
    }

    /// The columns of the only hit, as text.
    static QStringList onlyHit(const QString& columns)
    {
        QSqlQuery query(u"SELECT "_s + columns + u" FROM tarn.hits"_s);
        if (query.size() != 1 || !query.next())
            return {u"%1 hits"_s.arg(query.size())};
        QStringList values;
        for (int column = 0; column < columns.count(u',') + 1; ++column)
            values.append(query.isNull(column) ? u"NULL"_s : query.value(column).toString());
        return values;
    }

    /// Accepts one warning about a statement that has @p pattern in it.
    static void expectSqlWarning(const QString& pattern)
    {
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression(u"^sql: .*"_s + pattern));
    }

    PostgresServer m_server;
    ProductSession m_session{m_server};
    std::unique_ptr<Ingest> m_ingest;
};

} // namespace tarn::test
