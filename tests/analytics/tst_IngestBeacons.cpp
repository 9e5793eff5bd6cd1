#include "analytics/IngestTest.h"

using namespace Qt::Literals::StringLiterals;
using namespace tarn;
using namespace tarn::test;

/// How long somebody looked at a page, as the page itself tells.
class tst_IngestBeacons : public IngestTest
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { beginProgram(); }
    void init() { beginTest(); }
    void cleanup() { endTest(); }

    void beacon_data()
    {
        QTest::addColumn<QByteArray>("query");
        QTest::addColumn<QString>("seconds"); // of the stored hit; empty when there is none
        QTest::newRow("ordinary") << QByteArray("?p=%2Fabout&t=12.5") << u"12.5"_s;
        QTest::newRow("zero") << QByteArray("?p=/about&t=0") << QString();
        QTest::newRow("negative") << QByteArray("?p=/about&t=-1") << QString();
        QTest::newRow("smallest") << QByteArray("?p=/about&t=0.001") << u"0.001"_s;
        QTest::newRow("six-hours") << QByteArray("?p=/about&t=21600") << u"21600"_s;
        QTest::newRow("six-hours-and-a-second") << QByteArray("?p=/about&t=21601") << QString();
        QTest::newRow("infinite") << QByteArray("?p=/about&t=inf") << QString();
        QTest::newRow("not-a-number") << QByteArray("?p=/about&t=nan") << u"nan"_s;
        QTest::newRow("no-time") << QByteArray("?p=/about") << QString();
        QTest::newRow("longest-number-read-by-qt") << "?p=/about&t=+12.5" + QByteArray(59, '0') << u"12.5"_s;
        QTest::newRow("longest-number-read-by-qt-plus-one")
            << "?p=/about&t=+12.5" + QByteArray(60, '0') << u"12.5"_s;
        QTest::newRow("thousands-of-digits")
            << "?p=/about&t=" + QByteArray(8000, '0') + "12.5" + QByteArray(8000, '0') << u"12.5"_s;
        QTest::newRow("thousands-of-digits-and-an-exponent")
            << "?p=/about&t=125" + QByteArray(8000, '0') + "e-8001" << u"12.5"_s;
        QTest::newRow("thousands-of-digits-that-mean-too-much")
            << "?p=/about&t=" + QByteArray(8000, '7') << QString();
        QTest::newRow("thousands-of-digits-and-a-letter")
            << "?p=/about&t=12." + QByteArray(8000, '5') + 'x' << QString();
        QTest::newRow("long-not-a-number") << "?p=/about&t=nan(" + QByteArray(100, '5') + ')' << QString();
        QTest::newRow("text-for-time") << QByteArray("?p=/about&t=long") << QString();
        QTest::newRow("no-page") << QByteArray("?t=5") << QString();
        QTest::newRow("empty-page") << QByteArray("?p=&t=5") << QString();
        QTest::newRow("page-of-nuls") << QByteArray("?p=%00%00&t=5") << QString();
        QTest::newRow("no-query") << QByteArray("") << QString();
        QTest::newRow("bare-question-mark") << QByteArray("?") << QString();
    }
    void beacon()
    {
        QFETCH(const QByteArray, query);
        QFETCH(const QString, seconds);
        const auto result = ingest({beaconLine(query)});
        QCOMPARE(result.lines, 1);
        QCOMPARE(result.skipped, 0);
        QCOMPARE(result.stored, seconds.isEmpty() ? 0 : 1);
        QCOMPARE(result.days.size(), seconds.isEmpty() ? 0 : 1);
        if (!seconds.isEmpty()) {
            QCOMPARE(onlyHit(u"method, path, status, is_page, engaged_secs"_s),
                     QStringList({u"BEACON"_s, u"/about"_s, u"204"_s, u"false"_s, seconds}));
        }
    }

    void beaconsComeByAnyMethod_data()
    {
        QTest::addColumn<QByteArray>("method");
        for (const char* method : {"GET", "POST", "HEAD", "-"})
            QTest::newRow(method) << QByteArray(method);
    }
    void beaconsComeByAnyMethod()
    {
        QFETCH(const QByteArray, method);
        ingest({withTarget("/tarn-b?p=%2Fabout&t=5", method)});
        QCOMPARE(ofEachHit(u"concat_ws(' ', method, path, status, engaged_secs)"_s),
                 u"BEACON /about 204 5"_s);
    }

    void beaconsPageIsCut()
    {
        ingest({beaconLine("?t=5&p=/" + QByteArray(2000, 'x'))});
        QCOMPARE(onlyHit(u"length(path)"_s), QStringList{u"2000"_s});
    }

    void onlyTheExactPathIsABeacon_data()
    {
        QTest::addColumn<QByteArray>("target");
        QTest::newRow("slash-behind") << QByteArray("/tarn-b/?p=/about&t=5");
        QTest::newRow("longer") << QByteArray("/tarn-bc?p=/about&t=5");
        QTest::newRow("encoded") << QByteArray("/tarn%2Db?p=/about&t=5");
    }
    void onlyTheExactPathIsABeacon()
    {
        QFETCH(const QByteArray, target);
        ingest({Line{.request = "GET " + target + " HTTP/1.1"}.text()});
        QCOMPARE(onlyHit(u"method, engaged_secs"_s), QStringList({u"GET"_s, u"NULL"_s}));
    }
};

QTEST_GUILESS_MAIN(tst_IngestBeacons)
#include "tst_IngestBeacons.moc"
