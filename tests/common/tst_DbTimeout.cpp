#include "common/Db.h"

#include <QRegularExpression>
#include <QSettings>
#include <QSqlDatabase>
#include <QTcpServer>
#include <QTemporaryDir>
#include <QTest>

using namespace Qt::Literals::StringLiterals;
using namespace tarn;

/// How long a database server is waited for that says nothing.
class tst_DbTimeout : public QObject
{
    Q_OBJECT

private:
    /// Tries to open a session with a server at @p port of this machine that is none.
    static void failToOpen(quint16 port)
    {
        const QTemporaryDir folder;
        QSettings settings(folder.filePath(u"tarnhold.ini"_s), QSettings::IniFormat);
        settings.setValue(u"database/host"_s, u"127.0.0.1"_s);
        settings.setValue(u"database/port"_s, port);
        QTest::ignoreMessage(QtCriticalMsg, QRegularExpression(u"^database: "_s));
        QVERIFY(!db::open(settings, u"tarn-collect"_s));
    }

private Q_SLOTS:
    void init() { QTest::failOnWarning(QRegularExpression(u".?"_s)); }
    void cleanup()
    {
        QSqlDatabase::removeDatabase(QLatin1StringView(QSqlDatabase::defaultConnection));
        qunsetenv("PGCONNECT_TIMEOUT");
    }

    void tenSecondsUnlessTheEnvironmentSaysElse_data()
    {
        QTest::addColumn<QByteArray>("before");
        QTest::addColumn<QByteArray>("after");
        QTest::newRow("not-set") << QByteArray() << QByteArray("10");
        QTest::newRow("set") << QByteArray("7") << QByteArray("7");
    }
    void tenSecondsUnlessTheEnvironmentSaysElse()
    {
        QFETCH(const QByteArray, before);
        if (!before.isEmpty())
            qputenv("PGCONNECT_TIMEOUT", before);
        QTcpServer gone;
        QVERIFY(gone.listen(QHostAddress::LocalHost));
        const quint16 port = gone.serverPort();
        gone.close();
        failToOpen(port);
        QTEST(qgetenv("PGCONNECT_TIMEOUT"), "after");
    }

    /// It would wait for as long as the connection stands.
    void aServerThatSaysNothingIsGivenUp()
    {
        qputenv("PGCONNECT_TIMEOUT", "2");
        QTcpServer silent;
        QVERIFY(silent.listen(QHostAddress::LocalHost));
        failToOpen(silent.serverPort());
    }
};

QTEST_GUILESS_MAIN(tst_DbTimeout)
#include "tst_DbTimeout.moc"
