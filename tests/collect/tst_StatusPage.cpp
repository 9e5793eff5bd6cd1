#include "collect/ApachePage.h"
#include "collect/HostTexts.h"
#include "collect/StatusPage.h"
#include "support/FakeHttp.h"
#include "support/ProcessMemory.h"

#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QRandomGenerator>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>

#include <limits>

#include <csignal>
#include <sys/prctl.h>
#include <unistd.h>

using namespace Qt::Literals::StringLiterals;
using namespace tarn;
using test::FakeHttp;
using test::memoryMb;
using test::statusPage;

namespace {

constexpr qint64 kLargest = std::numeric_limits<qint64>::max();

FakeHttp::Reply ok(const QByteArray& page)
{
    return FakeHttp::reply("200 OK", page);
}

} // namespace

class tst_StatusPage : public QObject
{
    Q_OBJECT

private:
    /// True when the test's Apache gives a page of figures.
    bool isStatusPage() const
    {
        return parseApacheStatus(fetchStatusPage(m_apache.url(u"/server-status?auto"_s))).found;
    }

    FakeHttp m_apache;

private Q_SLOTS:
    void initTestCase() { QVERIFY(m_apache.start()); }

    void init() { QTest::failOnWarning(QRegularExpression(u".?"_s)); }

    void cleanup() { m_apache.reset(); }

    void capturedPages_data()
    {
        QTest::addColumn<bool>("found");
        QTest::addColumn<qint64>("requests");
        QTest::addColumn<qint64>("bytes");
        QTest::addColumn<qint32>("busy");
        QTest::addColumn<qint32>("slotCount");
        QTest::newRow("apache-2.4") << true << 123'456LL << 7'890'123LL * 1024 << 3 << 400;
        QTest::newRow("apache-2.4-just-started") << true << 2LL << 2'048LL << 1 << 400;
        QTest::newRow("apache-2.2") << true << 17LL << 21LL * 1024 << 1 << 256;
        // Without "ExtendedStatus On" it counts nothing.
        QTest::newRow("not-extended") << false << 0LL << 0LL << 0 << 0;
    }
    void capturedPages()
    {
        QFETCH(const bool, found);
        QFETCH(const qint64, requests);
        QFETCH(const qint64, bytes);
        QFETCH(const qint32, busy);
        QFETCH(const qint32, slotCount);
        const QString name = QString::fromLatin1(QTest::currentDataTag());
        const QByteArray page = test::captured(u"apache-status/%1.txt"_s.arg(name));
        QVERIFY(!page.isEmpty());
        for (const QByteArray& text : {page, QByteArray(page).replace('\n', "\r\n"), page.trimmed()}) {
            const ApacheStatus status = parseApacheStatus(text);
            QCOMPARE(status.found, found);
            QCOMPARE(status.requests, requests);
            QCOMPARE(status.bytes, bytes);
            QCOMPARE(status.busy, busy);
            QCOMPARE(status.slotCount, slotCount);
        }
    }

    void linesOfAPage_data()
    {
        QTest::addColumn<QByteArray>("text");
        QTest::addColumn<QList<qint64>>("figures"); // found, requests, bytes, busy, slots
        const auto row = [](const char* name, const char* text, const QList<qint64>& figures) {
            QTest::newRow(name) << QByteArray(text) << figures;
        };
        row("accesses-only", "Total Accesses: 5\n", {1, 5, 0, 0, 0});
        row("accesses-empty", "Total Accesses:\n", {1, 0, 0, 0, 0});
        row("accesses-no-number", "Total Accesses: many\nBusyWorkers: 3\n", {1, 0, 0, 3, 0});
        row("accesses-missing", "Total kBytes: 5\nBusyWorkers: 3\nScoreboard: W_\n", {0, 0, 0, 0, 0});
        row("accesses-longer-name", "My Total Accesses: 5\nTotal Accesses2: 5\n", {0, 0, 0, 0, 0});
        row("other-case", "total accesses: 5\n", {0, 0, 0, 0, 0});
        row("blanks-around", "  Total Accesses \t: 5 \r\n\tBusyWorkers :3\n", {1, 5, 0, 3, 0});
        row("no-blank", "Total Accesses:5\nTotal kBytes:2\n", {1, 5, 2048, 0, 0});
        row("last-of-two",
            "Total Accesses: 5\nTotal Accesses: 6\nBusyWorkers: 9\nBusyWorkers: x\n"
            "Scoreboard: ____\nScoreboard: W\n",
            {1, 6, 0, 0, 1});
        row("second-colon", "Total Accesses: 5:6\nScoreboard: W:W\n", {1, 0, 0, 0, 3});
        row("scoreboard-with-blanks-within", "Total Accesses: 5\nScoreboard:  W_ .  \n", {1, 5, 0, 0, 4});
        row("fraction", "Total Accesses: 5.5\nBusyWorkers: 1e1\n", {1, 0, 0, 0, 0});
        row("negative", "Total Accesses: -5\nTotal kBytes: -1\nBusyWorkers: -2\n", {1, 0, 0, 0, 0});
        row("most-kbytes", "Total Accesses: 1\nTotal kBytes: 9007199254740991\n",
            {1, 1, 9'223'372'036'854'774'784, 0, 0});
        row("most-kbytes-plus-one", "Total Accesses: 1\nTotal kBytes: 9007199254740992\n",
            {1, 1, kLargest, 0, 0});
        row("beyond-2^63", "Total Accesses: 9223372036854775808\nTotal kBytes: 18446744073709551615\n",
            {1, 0, 0, 0, 0});
        row("busy-beyond-2^31", "Total Accesses: 1\nBusyWorkers: 2147483648\n", {1, 1, 0, 0, 0});
        row("page-for-people", "<h1>Apache Server Status</h1>\n<dt>Total accesses: 5</dt>\n",
            {0, 0, 0, 0, 0});
    }
    void linesOfAPage()
    {
        QFETCH(const QByteArray, text);
        QFETCH(const QList<qint64>, figures);
        const ApacheStatus status = parseApacheStatus(text);
        QCOMPARE((QList<qint64>{status.found ? 1 : 0, status.requests, status.bytes, status.busy,
                                status.slotCount}),
                 figures);
    }

    void longestNumbers()
    {
        const QByteArray zeros(62, '0');
        QCOMPARE(parseApacheStatus("Total Accesses: 1\nBusyWorkers:" + zeros + "17").busy, 17);
        QCOMPARE(parseApacheStatus("Total Accesses: 1\nBusyWorkers:0" + zeros + "17").busy, 0);
    }

    void hostilePagesCostLittleMoreThanPlainOnes_data()
    {
        QTest::addColumn<QByteArray>("before");
        QTest::newRow("accesses") << QByteArray("Total Accesses: ");
        QTest::newRow("workers") << QByteArray("BusyWorkers: ");
    }
    void hostilePagesCostLittleMoreThanPlainOnes()
    {
        QFETCH(const QByteArray, before);
        QCOMPARE(test::textsThatCostTooMuch(before, [](const QByteArray& t) { parseApacheStatus(t); }),
                 QString());
    }

    /// A page cut anywhere is still read, and says no more than the whole one.
    void cutPagesSayNoMore()
    {
        const QByteArray page = test::captured(u"apache-status/apache-2.4.txt"_s);
        QVERIFY(!page.isEmpty());
        for (qsizetype size = 0; size <= page.size(); ++size)
            QVERIFY(parseApacheStatus(page.first(size)).slotCount <= 400);
    }

    void spoiltPagesAreZero_data() { test::addSpoiltTexts(); }
    void spoiltPagesAreZero()
    {
        QFETCH(const QByteArray, text);
        const ApacheStatus status = parseApacheStatus(text);
        QVERIFY(!status.found);
        QCOMPARE(status.slotCount, 0);
    }

    void answersThatAreNoPage_data()
    {
        QTest::addColumn<QByteArray>("answer");
        const QByteArray page = statusPage(100, 200, 1, 150);
        QTest::newRow("not-found") << FakeHttp::reply("404 Not Found", page).bytes;
        QTest::newRow("another-success") << FakeHttp::reply("203 Non-Authoritative Information", page).bytes;
        QTest::newRow("redirect-with-page")
            << FakeHttp::reply("302 Found", page, "Location: /elsewhere\r\n").bytes;
        QTest::newRow("another-page") << ok("<html>It works!</html>").bytes;
        QTest::newRow("empty") << ok({}).bytes;
        QTest::newRow("no-http") << QByteArray("SSH-2.0-OpenSSH_9.2\r\n\r\n");
        QTest::newRow("one-byte-too-much") << ok(page + QByteArray(1'048'576 - page.size() + 1, '\n')).bytes;
    }
    void answersThatAreNoPage()
    {
        QFETCH(const QByteArray, answer);
        m_apache.setReply({answer, FakeHttp::Then::CloseLate});
        QVERIFY(!isStatusPage());
        for (const FakeHttp::Request& request : m_apache.requests())
            QCOMPARE(request.target, QByteArray("/server-status?auto")); // no redirect is followed
    }

    /// Chance decides how the end of the connection is noticed: hence 20 times.
    void aPageThatIsCutShortIsNone()
    {
        m_apache.setReply({ok(statusPage(100, 200, 1, 150)).bytes.chopped(1), FakeHttp::Then::CloseLate});
        for (int i = 0; i < 20; ++i)
            QVERIFY(!isStatusPage());
    }

    void theLongestPageIsTaken()
    {
        const QByteArray page = statusPage(100, 200, 1, 150);
        m_apache.setReply(ok(page + QByteArray(1'048'576 - page.size(), '\n')));
        QVERIFY(isStatusPage());
    }

    void noCompressedPageIsAskedFor()
    {
        fetchStatusPage(m_apache.url(u"/server-status?auto"_s));
        QCOMPARE(m_apache.requests().first().header("Accept-Encoding"), QByteArray("identity"));
    }

    void oddAddressesHaveNoPage_data()
    {
        QTest::addColumn<QString>("url");
        QTest::newRow("refused") << u"http://127.0.0.1:1/"_s;
        QTest::newRow("no-scheme") << u"127.0.0.1/server-status?auto"_s;
        QTest::newRow("scheme-relative") << u"//127.0.0.1/server-status?auto"_s;
        QTest::newRow("no-host") << u"http://"_s;
        QTest::newRow("bad-port") << u"http://127.0.0.1:99999/"_s;
        QTest::newRow("blank") << u" "_s;
        QTest::newRow("words") << u"not an address"_s;
        QTest::newRow("other-scheme") << u"gopher://127.0.0.1/"_s;
        QTest::newRow("endless-file") << u"file:///dev/zero"_s;
        QTest::newRow("data") << u"data:text/plain,Total Accesses: 5"_s;
        QTest::newRow("nul") << u"http://127.0.0.1\0/"_s;
    }
    void oddAddressesHaveNoPage()
    {
        QFETCH(const QString, url);
        QVERIFY(!parseApacheStatus(fetchStatusPage(url)).found);
    }

    /// Silence ends the wait after three seconds, drops after ten; a flood at once.
    void silenceDropsAndFloodsEndTheWait()
    {
        m_apache.setReply({QByteArray()});
        QElapsedTimer timer;
        timer.start();
        QVERIFY(!isStatusPage());
        QVERIFY2(timer.elapsed() > 2500 && timer.elapsed() < 6000,
                 qPrintable(QString::number(timer.elapsed())));

        const QByteArray endless = "HTTP/1.1 200 OK\r\n\r\n" + statusPage(1, 1, 1, 1);
        m_apache.setReply({endless, FakeHttp::Then::Trickle});
        timer.start();
        QVERIFY(!isStatusPage());
        QVERIFY2(timer.elapsed() > 9000 && timer.elapsed() < 13'000,
                 qPrintable(QString::number(timer.elapsed())));

        m_apache.setReply({endless, FakeHttp::Then::Flood});
        test::resetMemoryPeak();
        const double before = memoryMb("VmHWM");
        timer.start();
        QVERIFY(!isStatusPage());
        QVERIFY2(timer.elapsed() < 2500, qPrintable(QString::number(timer.elapsed())));
        QVERIFY2(memoryMb("VmHWM") - before < 50, qPrintable(QString::number(memoryMb("VmHWM") - before)));
    }

    void aRealApacheIsUnderstood()
    {
        QTemporaryDir folder(u"/tmp/tarn-test-XXXXXX"_s);
        QFile configuration(folder.filePath(u"apache.conf"_s));
        QProcess apache;
        apache.setChildProcessModifier([] { prctl(PR_SET_PDEATHSIG, SIGTERM); });
        apache.setProcessChannelMode(QProcess::MergedChannels);
        const QString ready = folder.filePath(u"ready.pid"_s);
        // Whether a port is free is known for sure only once the server has it.
        QString url;
        for (int i = 0; i < 20 && !QFile::exists(ready); ++i) {
            const int port = QRandomGenerator::global()->bounded(10'000, 30'000);
            QVERIFY(configuration.open(QIODevice::WriteOnly | QIODevice::Truncate));
            configuration.write(
                "ServerRoot " + folder.path().toUtf8() + "\nServerName status.example\nPidFile "
                + ready.toUtf8() + "\nDefaultRuntimeDir " + folder.path().toUtf8() + "\nErrorLog "
                + folder.path().toUtf8() + "/error.log\nListen 127.0.0.1:" + QByteArray::number(port) + '\n');
            for (const QByteArrayView module : {"mpm_event", "authz_core", "authz_host", "status"}) {
                configuration.write("LoadModule " + module.toByteArray()
                                    + "_module /usr/lib/apache2/modules/mod_" + module.toByteArray()
                                    + ".so\n");
            }
            if (geteuid() == 0)
                configuration.write("User www-data\nGroup www-data\n");
            configuration.write("StartServers 1\nServerLimit 1\nThreadsPerChild 8\nMaxRequestWorkers 8\n"
                                "MinSpareThreads 1\nMaxSpareThreads 8\nExtendedStatus On\n"
                                "<Location /server-status>\nSetHandler server-status\nRequire local\n"
                                "</Location>\n");
            configuration.close();
            apache.start(u"/usr/sbin/apache2"_s, {u"-f"_s, configuration.fileName(), u"-DFOREGROUND"_s});
            QVERIFY(apache.waitForStarted());
            url = u"http://127.0.0.1:%1/server-status?auto"_s.arg(port);
            QVERIFY(QTest::qWaitFor(
                [&] { return QFile::exists(ready) || apache.state() == QProcess::NotRunning; }, 30'000));
        }
        QVERIFY2(QFile::exists(ready), apache.readAll().constData());

        const ApacheStatus first = parseApacheStatus(fetchStatusPage(url));
        QVERIFY(first.found);
        QCOMPARE(first.slotCount, 8);
        QVERIFY(first.busy >= 1); // the one that writes the page
        ApacheStatus second;
        // Apache counts a request when it is done with it, which can be after the client is.
        QTRY_VERIFY((second = parseApacheStatus(fetchStatusPage(url))).requests > first.requests);
        QVERIFY(second.bytes >= first.bytes);

        apache.terminate();
        QVERIFY(apache.waitForFinished());
        QVERIFY(!parseApacheStatus(fetchStatusPage(url)).found);
    }
};

QTEST_GUILESS_MAIN(tst_StatusPage)
#include "tst_StatusPage.moc"
