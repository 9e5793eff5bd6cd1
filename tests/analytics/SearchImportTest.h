// What the tests of the import of search figures share: documents of an engine, and what is stored of them. A
// test class inherits this one.
#pragma once

#include "analytics/SearchImport.h"
#include "support/ProductSession.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QObject>
#include <QRegularExpression>
#include <QTest>

namespace tarn::test {

using namespace Qt::Literals::StringLiterals;

/// A row as an engine sends it.
inline QJsonObject row(const QStringList& keys, int clicks = 1, int impressions = 10, double position = 2.5)
{
    return {
        {u"keys"_s,        QJsonArray::fromStringList(keys)},
        {u"clicks"_s,      clicks                          },
        {u"impressions"_s, impressions                     },
        {u"ctr"_s,         0.1                             },
        {u"position"_s,    position                        }
    };
}

inline QJsonObject detail(const QString& day, const QString& page = u"https://example.org/shoes"_s,
                          const QString& country = u"deu"_s)
{
    return row({day, u"red shoes"_s, page, country, u"MOBILE"_s});
}

inline QJsonObject document(const QJsonArray& totals, const QJsonArray& rows)
{
    return {
        {u"totals"_s, totals},
        {u"rows"_s,   rows  }
    };
}

inline QJsonObject parsed(const QByteArray& text)
{
    QJsonParseError error;
    QJsonObject object = QJsonDocument::fromJson(text, &error).object();
    if (error.error != QJsonParseError::NoError)
        qFatal("the test's JSON does not parse: %s", qPrintable(error.errorString()));
    return object;
}

class SearchImportTest : public QObject
{
protected:
    void beginProgram() { QVERIFY(m_server.start()); }

    void beginTest()
    {
        QTest::failOnWarning(QRegularExpression(u".?"_s));
        QVERIFY(m_session.open());
    }

    void endTest() { m_session.close(); }

    QString import(const QJsonObject& document, int site = 1, const QString& engine = u"google"_s)
    {
        m_ok = true;
        return analytics::importSearchData(site, engine, document, &m_ok);
    }

    static QString days()
    {
        return scalar(
            u"SELECT string_agg(format('%s %s %s %s %s %s', site_id, engine, day, clicks, impressions, "
            "position), '|' ORDER BY site_id, engine, day) FROM tarn.search_days"_s);
    }

    static QString rows()
    {
        return scalar(
            u"SELECT string_agg(format('%s %s %s %s %s %s %s %s %s %s', site_id, engine, day, query, page, "
            "coalesce(country, 'NULL'), device, clicks, impressions, position), '|' "
            "ORDER BY site_id, engine, day, page) FROM tarn.search_rows"_s);
    }

    /// Column @p name of the only detail row.
    static QString column(const QString& name)
    {
        return scalar(u"SELECT %1 FROM tarn.search_rows"_s.arg(name));
    }

    test::PostgresServer m_server;
    test::ProductSession m_session{m_server};
    bool m_ok = false;
};

} // namespace tarn::test
