// The session over a driver that does not use the client library as the usual one does: there is nobody to
// ask for the live status then, and an open session counts as healthy.

#include "common/Db.h"
#include "common/Prepared.h"
#include "common/Transaction.h"

#include <QRegularExpression>
#include <QSettings>
#include <QSqlDatabase>
#include <QSqlDriver>
#include <QSqlRecord>
#include <QSqlResult>
#include <QTemporaryDir>
#include <QTest>

#include <dlfcn.h>

using namespace Qt::Literals::StringLiterals;
using namespace tarn;

namespace {

class ForeignResult : public QSqlResult
{
public:
    explicit ForeignResult(const QSqlDriver* driver)
        : QSqlResult(driver)
    {
    }

protected:
    QVariant data(int) override { return {}; }
    bool isNull(int) override { return true; }
    bool reset(const QString&) override { return true; }
    bool fetch(int) override { return false; }
    bool fetchFirst() override { return false; }
    bool fetchLast() override { return false; }
    int size() override { return 0; }
    int numRowsAffected() override { return 0; }
    bool prepare(const QString& statement) override
    {
        s_statement = statement;
        return true;
    }
    bool exec() override
    {
        s_values = boundValues();
        clear();
        return true;
    }

public:
    static inline QString s_statement;
    static inline QVariantList s_values;
};

class ForeignDriver : public QSqlDriver
{
public:
    bool hasFeature(DriverFeature feature) const override
    {
        return feature == PreparedQueries || feature == PositionalPlaceholders || feature == Transactions;
    }
    bool open(const QString&, const QString&, const QString&, const QString&, int, const QString&) override
    {
        ++s_opened;
        setOpen(true);
        return true;
    }
    void close() override { setOpen(false); }
    bool beginTransaction() override { return true; }
    bool rollbackTransaction() override { return true; }
    QSqlResult* createResult() const override { return new ForeignResult(this); }
    QVariant handle() const override { return s_handle; }

    static inline int s_opened = 0;
    static inline QVariant s_handle;
};

} // namespace

class tst_DbForeignDriver : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        QSqlDatabase::registerSqlDriver(u"QPSQL"_s, new QSqlDriverCreator<ForeignDriver>);
        QTemporaryDir folder;
        const QSettings settings(folder.filePath(u"empty.ini"_s), QSettings::IniFormat);
        QVERIFY(tarn::db::open(settings, u"tarn-collect"_s));
    }

    void init() { QTest::failOnWarning(QRegularExpression(u".?"_s)); }

    void openSessionCountsAsHealthy_data()
    {
        QTest::addColumn<QVariant>("handle");
        QTest::newRow("no-handle") << QVariant();
        QTest::newRow("handle-of-another-type") << QVariant(42);
    }
    void openSessionCountsAsHealthy()
    {
        QFETCH(const QVariant, handle);
        // The test means something only where nothing has loaded the client library.
        QVERIFY(!dlopen("libpq.so.5", RTLD_NOW | RTLD_NOLOAD));
        ForeignDriver::s_handle = handle;
        const int before = ForeignDriver::s_opened;
        QVERIFY(tarn::db::ensure(false));
        QVERIFY(tarn::db::ensure(false));
        QCOMPARE(ForeignDriver::s_opened, before);
    }

    void statementsGoTheOrdinaryRoad()
    {
        const QDateTime at(QDate(2024, 10, 10), QTime(13, 55, 36), Qt::UTC);
        db::Values values;
        values.addInt(1);
        values.addTime(at);
        values.addText(u""_s);
        values.addNull(db::Values::Kind::Text);
        values.addBytes("visitor-");
        QVERIFY(db::ask(u"SELECT ?, ?, ?, ?, ?"_s, values).ok);
        QCOMPARE(ForeignResult::s_statement, u"SELECT ?, ?, ?, ?, ?"_s);
        QCOMPARE(ForeignResult::s_values, QVariantList({1, at, u""_s, QVariant(), QByteArray("visitor-")}));
        QVERIFY(!ForeignResult::s_values.at(2).isNull());

        db::Transaction transaction;
        QVERIFY(transaction.ask(u"SELECT ?"_s, values).ok);
        QCOMPARE(ForeignResult::s_statement, u"SELECT ?"_s);
        ForeignResult::s_statement.clear();
        QVERIFY(!db::askAll({
            {u"SELECT 1"_s, {}},
            {u"SELECT 2"_s, {}}
        }));
        QCOMPARE(ForeignResult::s_statement, QString());
        db::dropStatements();
    }

    void closedSessionIsOpenedAgain()
    {
        QSqlDatabase::database().close();
        const int before = ForeignDriver::s_opened;
        QTest::ignoreMessage(QtInfoMsg, "database: reconnected");
        QVERIFY(tarn::db::ensure(false));
        QCOMPARE(ForeignDriver::s_opened, before + 1);
    }
};

QTEST_GUILESS_MAIN(tst_DbForeignDriver)
#include "tst_DbForeignDriver.moc"
