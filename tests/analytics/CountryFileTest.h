// What the tests of the country table share: country files, DB-IP on loopback, and a table to be replaced. A
// test class inherits this one.
#pragma once

#include "analytics/GeoIp.h"
#include "support/FakeHosts.h"
#include "support/ProductSession.h"

#include <QFile>
#include <QObject>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>

namespace tarn::test {

using namespace Qt::Literals::StringLiterals;
using analytics::updateGeoIp;

inline const auto kNoCountryFile = u"that does not look like a DB-IP country file"_s;

inline QString loaded(int ranges)
{
    return u"loaded %1 country ranges (IP data by DB-IP, CC BY 4.0)"_s.arg(ranges);
}

inline const QDate kDay(2024, 5, 31);

inline QByteArray dotted(quint32 address)
{
    return QByteArray::number(address >> 24) + '.' + QByteArray::number(address >> 16 & 255) + '.'
           + QByteArray::number(address >> 8 & 255) + '.' + QByteArray::number(address & 255);
}

/// The line for range number @p i; no two overlap, and most have 256 addresses.
inline QByteArray line(int i)
{
    static constexpr QByteArrayView kCountries[] = {"AU", "CN", "DE", "FR", "JP", "SE", "US"};
    const quint32 from = 0x01000000 + static_cast<quint32>(i) * 256;
    return dotted(from) + ',' + dotted(from + 255) + ',' + kCountries[i % 7].toByteArray();
}

inline QList<QByteArray> lines(int count)
{
    QList<QByteArray> all;
    for (int i = 0; i < count; ++i)
        all.append(line(i));
    return all;
}

/// A file of the lines, with a line feed behind each.
inline QByteArray text(const QList<QByteArray>& all)
{
    return all.join('\n') + '\n';
}

/// One of 1,200 lines in which line @p place reads @p odd.
inline QByteArray textWith(const QByteArray& odd, qsizetype place = 600)
{
    QList<QByteArray> all = lines(1200);
    all[place] = odd;
    return text(all);
}

class CountryFileTest : public QObject
{
protected:
    void beginProgram()
    {
        QVERIFY(m_server.start());
        QVERIFY(m_hosts.start({u"download.db-ip.com"_s, u"elsewhere.example.net"_s}));
        m_hosts.capture();
    }

    void endProgram() { FakeHosts::release(); }

    void beginTest()
    {
        QTest::failOnWarning(QRegularExpression(u".?"_s));
        QVERIFY(m_session.open());
        run(u"INSERT INTO tarn.geo_country VALUES ('192.0.2.0', '192.0.2.255', 'XA')"_s);
        run(u"INSERT INTO tarn.settings VALUES ('geoip_month', '2024-04')"_s);
        QVERIFY(isAsBefore());
    }

    void endTest()
    {
        const QString complaints = m_hosts.complaints().join(u'\n');
        m_hosts.reset();
        m_session.close();
        QCOMPARE(complaints, QString());
    }

    static QString ranges() { return scalar(u"SELECT count(*) FROM tarn.geo_country"_s); }
    static QString month() { return scalar(u"SELECT value FROM tarn.settings WHERE key = 'geoip_month'"_s); }

    /// The table and the month that the tests start with.
    static bool isAsBefore()
    {
        return scalar(u"SELECT string_agg(concat_ws(' ', host(ip_from), host(ip_to), country), ', ') "
                      "FROM tarn.geo_country"_s)
                   == u"192.0.2.0 192.0.2.255 XA"_s
               && month() == u"2024-04"_s;
    }

    QString makeFile(const QString& name, const QByteArray& contents) const
    {
        const QString path = m_folder.filePath(name);
        QFile file(path);
        return file.open(QIODevice::WriteOnly) && file.write(contents) == contents.size() ? path : QString();
    }

    /// Loads a file of these contents, and returns the message. The flag must fit it.
    QString load(const QByteArray& contents, const QString& name = u"ranges.csv"_s)
    {
        return loadFile(makeFile(name, contents));
    }

    static QString loadFile(const QString& path)
    {
        QTest::ignoreMessage(QtInfoMsg, qPrintable(u"collect: loading countries from "_s + path));
        bool ok = true;
        const QString message = updateGeoIp(path, &ok, kDay);
        return ok == message.startsWith(u"loaded "_s) ? message : u"flag and message differ: "_s + message;
    }

    /// Has @p event on @p table run @p action, written in the server's procedural language.
    static void addTrigger(const QString& event, const QString& table, const QString& action)
    {
        run(u"CREATE FUNCTION meddle() RETURNS trigger LANGUAGE plpgsql AS $$ BEGIN %1; RETURN NEW; END $$"_s
                .arg(action));
        run(u"CREATE %1 ON tarn.%2 %3 EXECUTE FUNCTION meddle()"_s.arg(
            event, table, event.contains(u"TRUNCATE"_s) ? u"FOR EACH STATEMENT"_s : u"FOR EACH ROW"_s));
    }

    test::PostgresServer m_server;
    test::ProductSession m_session{m_server};
    FakeHosts m_hosts;
    QTemporaryDir m_folder;
};

} // namespace tarn::test
