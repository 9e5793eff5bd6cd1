// The program as it is installed: its options, its files, its failures, and its pages in a browser.
#include "ReportFixture.h"
#include "report/Page.h"

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>

#include <sys/stat.h>

using namespace Qt::Literals::StringLiterals;
using tarn::report::siteFileName;
using tarn::test::value;

namespace {

const auto kYear = QStringLiteral(TARN_DEMO_DIR "/year.sql");
const auto kHostile = QStringLiteral(TARN_TEST_REPORT_DIR "/hostile.sql");

} // namespace

class tst_Program : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void fileNames_data();
    void fileNames();
    void fileNamesOfLongHosts();
    void everyPage();
    void namedSitesOnly();
    void asReader();
    void oldPagesAreReplacedWhole();
    void failures_data();
    void failures();
    void unwritableFolder();
    void failedStatementWritesNothing();
    void otherSchemaVersion();
    void inTheBrowser();

private:
    struct Run
    {
        int status = -1;
        QString log;
    };
    Run report(QStringList arguments, const QString& database = u"demo"_s,
               const QString& user = u"postgres"_s);
    QString settings(const QString& database, const QString& user);
    static QStringList pagesIn(const QString& folder)
    {
        return QDir(folder).entryList(QDir::Files | QDir::Hidden, QDir::Name);
    }
    static QByteArray read(const QString& path)
    {
        QFile file(path);
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    }
    QString fill(const QStringList& files);

    tarn::test::PostgresServer m_server;
    QTemporaryDir m_folder;
    QString m_demo;
};

QString tst_Program::fill(const QStringList& files)
{
    const QString database = m_server.createDatabase();
    for (const QString& file : files) {
        const QString errors = m_server.runFile(database, file);
        if (!errors.isEmpty())
            qWarning("%s", qPrintable(errors));
    }
    return database;
}

void tst_Program::initTestCase()
{
    QTest::failOnWarning(QRegularExpression(u".*"_s));
    QVERIFY(m_server.start());
    m_demo = fill({kYear});
}

QString tst_Program::settings(const QString& database, const QString& user)
{
    QFile file(m_folder.filePath(u"report.ini"_s));
    if (file.open(QIODevice::WriteOnly)) {
        file.write(u"[database]\nhost=%1\nname=%2\nuser=%3\n[notify]\nhost_name=web1.example.org\n"_s
                       .arg(m_server.socketFolder(), database == u"demo"_s ? m_demo : database, user)
                       .toUtf8());
    }
    return file.fileName();
}

tst_Program::Run tst_Program::report(QStringList arguments, const QString& database, const QString& user)
{
    if (!arguments.contains(u"--config"_s))
        arguments.append({u"--config"_s, settings(database, user)});
    QProcess program;
    program.setProcessChannelMode(QProcess::MergedChannels);
    program.setWorkingDirectory(m_folder.path());
    program.start(QStringLiteral(TARN_REPORT_BINARY), arguments);
    if (!program.waitForFinished(60'000))
        return {};
    return {program.exitStatus() == QProcess::NormalExit ? program.exitCode() : -1,
            QString::fromUtf8(program.readAll()).trimmed()};
}

void tst_Program::fileNames_data()
{
    QTest::addColumn<QString>("host");
    QTest::addColumn<QString>("expected");

    QTest::newRow("plain") << u"www.example.org"_s << u"site-www.example.org.html"_s;
    QTest::newRow("other-script") << u"bä.example"_s << u"site-b_c3_a4.example.html"_s;
    QTest::newRow("up-and-out") << u"../../etc/passwd"_s << u"site-.._2f.._2fetc_2fpasswd.html"_s;
    QTest::newRow("the-host-page") << u"index"_s << u"site-index.html"_s;
    QTest::newRow("capitals-apart") << u"A.example"_s << u"site-_41.example.html"_s;
    QTest::newRow("escape-apart") << u"_41.example"_s << u"site-_5f41.example.html"_s;
    QTest::newRow("address-and-query") << u"a:b?c#d%41"_s << u"site-a_3ab_3fc_23d_2541.html"_s;
    QTest::newRow("empty") << u""_s << u"site-.html"_s;
}

void tst_Program::fileNames()
{
    QFETCH(const QString, host);
    QTEST(siteFileName(host), "expected");
}

void tst_Program::fileNamesOfLongHosts()
{
    const QString most(180, u'a');
    QCOMPARE(siteFileName(most), u"site-"_s + most + u".html"_s);
    const QString longer = siteFileName(most + u'b');
    QVERIFY(longer.startsWith(u"site-"_s + most + u"__"_s));
    QVERIFY(longer.size() <= 255);
    QVERIFY(longer != siteFileName(most + u'c'));
}

void tst_Program::everyPage()
{
    const QString folder = m_folder.filePath(u"new/every"_s);
    const Run run = report({u"--output"_s, folder});
    QCOMPARE(run.log, QString());
    QCOMPARE(run.status, 0);
    const QStringList pages = pagesIn(folder);
    QCOMPARE(pages.size(), 45);
    QVERIFY(pages.contains(u"index.html"_s) && pages.contains(u"site-b_c3_a4ckerei.example.html"_s));
    for (const QString& page : pages) {
        const QByteArray bytes = read(folder + u'/' + page);
        QVERIFY2(bytes.startsWith("<!DOCTYPE html>") && bytes.endsWith("</html>"), qPrintable(page));
        QVERIFY2(bytes.size() < 1'000'000, qPrintable(page));
        QVERIFY2(bytes.contains("<h1><bdi>"), qPrintable(page));
    }
}

void tst_Program::namedSitesOnly()
{
    const QString folder = m_folder.filePath(u"named"_s);
    const Run run = report({u"--output"_s, folder, u"--site"_s, u"docs.example.org"_s, u"--site"_s,
                            u"Blog.example.net"_s, u"--days"_s, u"7"_s});
    QCOMPARE(run.log, QString());
    QCOMPARE(pagesIn(folder), QStringList({u"index.html"_s, u"site-blog.example.net.html"_s,
                                           u"site-docs.example.org.html"_s}));
    QVERIFY(read(folder + u"/index.html"_s).contains("7 days"));
}

void tst_Program::asReader()
{
    tarn::test::run(m_server.connect(m_demo, u"admin"_s), u"CREATE ROLE reporter LOGIN"_s);
    QCOMPARE(
        m_server.runFile(m_demo, tarn::test::schemaFile(u"grants.sql"_s), {u"-v"_s, u"reader=reporter"_s}),
        QString());
    const QString folder = m_folder.filePath(u"reader"_s);
    const Run run = report({u"--output"_s, folder}, u"demo"_s, u"reporter"_s);
    QCOMPARE(run.log, QString());
    QCOMPARE(run.status, 0);
    QCOMPARE(pagesIn(folder).size(), 45);
    QSqlDatabase::removeDatabase(u"admin"_s);
}

void tst_Program::oldPagesAreReplacedWhole()
{
    const QString folder = m_folder.filePath(u"again"_s);
    QVERIFY(QDir().mkpath(folder));
    QFile old(folder + u"/index.html"_s);
    QVERIFY(old.open(QIODevice::ReadWrite));
    old.write("an old page");
    old.flush();
    QCOMPARE(report({u"--output"_s, folder, u"--site"_s, u"docs.example.org"_s}).status, 0);
    // Whoever has the old one open reads it to its end; the new one is another file.
    old.seek(0);
    QCOMPARE(old.readAll(), "an old page");
    QVERIFY(read(old.fileName()).endsWith("</html>"));
    QCOMPARE(pagesIn(folder).size(), 2); // nothing temporary is left
}

void tst_Program::failures_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QString>("message");

    QTest::newRow("no-settings") << QStringList({u"--config"_s, u"/nowhere.ini"_s})
                                 << u"config file not found: /nowhere.ini"_s;
    QTest::newRow("unknown-site") << QStringList({u"--site"_s, u"nobody.example"_s})
                                  << u"there is no site nobody.example"_s;
    QTest::newRow("no-days") << QStringList({u"--days"_s, u"0"_s})
                             << u"--days wants a number from 1 to 366, not 0"_s;
    QTest::newRow("too-many-days") << QStringList({u"--days"_s, u"367"_s})
                                   << u"--days wants a number from 1 to 366, not 367"_s;
    QTest::newRow("days-in-words") << QStringList({u"--days"_s, u"week"_s})
                                   << u"--days wants a number from 1 to 366, not week"_s;
    QTest::newRow("folder-without-option")
        << QStringList({u"/tmp/somewhere"_s})
        << u"/tmp/somewhere is no option; the folder is named with --output"_s;
}

void tst_Program::failures()
{
    QFETCH(const QStringList, arguments);
    const QString folder = m_folder.filePath(u"failed"_s);
    const Run run = report(arguments + QStringList({u"--output"_s, folder}));
    QCOMPARE(run.status, 1);
    QTEST(run.log, "message");
    QVERIFY(!QDir(folder).exists());
}

void tst_Program::unwritableFolder()
{
    // A file in the folder's place stops root as well.
    const QString file = m_folder.filePath(u"file"_s);
    QVERIFY(QFile(file).open(QIODevice::WriteOnly));
    const Run run = report({u"--output"_s, file + u"/report"_s});
    QCOMPARE(run.status, 1);
    QCOMPARE(run.log, u"cannot make the folder "_s + file + u"/report"_s);

    // A folder in a page's place.
    const QString folder = m_folder.filePath(u"taken"_s);
    QVERIFY(QDir().mkpath(folder + u"/index.html/x"_s));
    const Run taken = report({u"--output"_s, folder, u"--site"_s, u"docs.example.org"_s});
    QCOMPARE(taken.status, 1);
    QVERIFY2(taken.log.startsWith(u"cannot write "_s + folder + u"/index.html: "_s), qPrintable(taken.log));
    QCOMPARE(taken.log.count(u'\n'), 0);
}

void tst_Program::failedStatementWritesNothing()
{
    const QString database = fill({});
    tarn::test::run(m_server.connect(database, u"admin"_s), u"DROP TABLE tarn.alerts CASCADE"_s);
    const QString folder = m_folder.filePath(u"none"_s);
    const Run run = report({u"--output"_s, folder}, database);
    QCOMPARE(run.status, 1);
    QVERIFY2(run.log.contains(u"tarn.alerts"_s), qPrintable(run.log));
    QVERIFY(!QDir(folder).exists());
    QSqlDatabase::removeDatabase(u"admin"_s);
}

void tst_Program::otherSchemaVersion()
{
    const QString database = fill({});
    tarn::test::run(m_server.connect(database, u"admin"_s),
                    u"UPDATE tarn.schema_migrations SET version = 10"_s);
    const Run run = report({}, database);
    QCOMPARE(run.status, 1);
    QCOMPARE(run.log, u"database schema is not at version 11; run tarn-admin migrate"_s);
    QSqlDatabase::removeDatabase(u"admin"_s);
}

void tst_Program::inTheBrowser()
{
    const QString pages = m_folder.filePath(u"browser"_s);
    QCOMPARE(report({u"--output"_s, pages + u"/demo"_s}).log, QString());
    QCOMPARE(report({u"--output"_s, pages + u"/hostile"_s}, fill({kYear, kHostile})).log, QString());

    QProcess test;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(u"TARN_REPORT_FOLDER"_s, pages);
    test.setProcessEnvironment(environment);
    test.setProcessChannelMode(QProcess::MergedChannels);
    test.start(u"sh"_s,
               {QStringLiteral(TARN_TEST_REPORT_DIR "/browser/run"), QStringLiteral(TARN_BROWSER_TEST_DIR)});
    QVERIFY(test.waitForFinished(-1)); // the limits of the function and of the program end it
    const QByteArray output = test.readAll();
    QVERIFY2(test.exitCode() == 0 && output.contains("# fail 0"), output.constData());
}

QTEST_GUILESS_MAIN(tst_Program)
#include "tst_Program.moc"
