#include "common/Transaction.h"
#include "support/ProductSession.h"

#include <QRegularExpression>
#include <QTest>

using namespace Qt::Literals::StringLiterals;
using namespace tarn;
using test::run;
using test::scalar;

class tst_Transaction : public QObject
{
    Q_OBJECT

private:
    const QString m_insertion = u"INSERT INTO kept VALUES (?)"_s;

    QString kept() { return test::value(m_session.other(), u"SELECT count(*) FROM kept"_s); }

    static bool insert(db::Transaction& transaction, const QString& statement, int number)
    {
        QSqlQuery& query = transaction.prepare(statement);
        query.addBindValue(number);
        return db::exec(query);
    }

    static void expectWarning(const QString& pattern)
    {
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression(pattern));
    }

    test::PostgresServer m_server;
    test::ProductSession m_session{m_server};

private Q_SLOTS:
    void initTestCase() { QVERIFY(m_server.start()); }

    void init()
    {
        QTest::failOnWarning(QRegularExpression(u".?"_s));
        QVERIFY(m_session.open());
        run(u"CREATE TABLE kept (number int CHECK (number < 100), "
            "once int UNIQUE DEFERRABLE INITIALLY DEFERRED DEFAULT 1)"_s);
    }

    /// Fails if a statement or a transaction was left in the session.
    void cleanup() { m_session.close(); }

    void commitKeepsEverything()
    {
        {
            db::Transaction transaction;
            QVERIFY(transaction.begun());
            QVERIFY(insert(transaction, m_insertion, 1));
            QCOMPARE(kept(), u"0"_s);
            QVERIFY(transaction.commit());
        }
        QCOMPARE(kept(), u"1"_s);
    }

    void withoutACommitNothingIsKept()
    {
        {
            db::Transaction transaction;
            QVERIFY(insert(transaction, m_insertion, 1));
        }
        QCOMPARE(kept(), u"0"_s);
    }

    void oneTextIsPreparedOnce()
    {
        db::Transaction transaction;
        QSqlQuery& first = transaction.prepare(m_insertion);
        QVERIFY(&transaction.prepare(u"SELECT 1"_s) != &first);
        QCOMPARE(&transaction.prepare(m_insertion), &first);
        QCOMPARE(scalar(u"SELECT count(*) FROM pg_prepared_statements"_s), u"2"_s);
    }

    void textThatCannotBePreparedIsTriedAgain()
    {
        db::Transaction transaction;
        const auto statement = u"INSERT INTO later VALUES (?)"_s;
        run(u"SAVEPOINT before"_s);
        expectWarning(u"^sql: .*\"later\" does not exist"_s);
        QVERIFY(!insert(transaction, statement, 1));
        run(u"ROLLBACK TO SAVEPOINT before"_s);
        run(u"CREATE TABLE later (number int)"_s);
        QVERIFY(insert(transaction, statement, 1));
        QVERIFY(transaction.commit());
    }

    void statementsOfAnAbortedTransactionAreFreed()
    {
        db::Transaction transaction;
        QVERIFY(insert(transaction, m_insertion, 1));
        expectWarning(u"^sql: .*violates check constraint"_s);
        QVERIFY(!insert(transaction, m_insertion, 100));
        // cleanup() finds no statement left in the server.
    }

    void refusedCommitIsLogged()
    {
        {
            db::Transaction transaction;
            QVERIFY(insert(transaction, m_insertion, 1));
            QVERIFY(insert(transaction, m_insertion, 2));
            expectWarning(u"^sql: .*duplicate key"_s);
            QVERIFY(!transaction.commit());
        }
        QCOMPARE(kept(), u"0"_s);
    }

    void spoiltTransactionSaysNothingMore()
    {
        db::Transaction transaction;
        expectWarning(u"^sql: .*violates check constraint"_s);
        QVERIFY(!insert(transaction, m_insertion, 100));
        transaction.spoil();
        QVERIFY(transaction.isSpoilt());
        QVERIFY(!transaction.commit());
    }

    void lostSessionBeginsNone()
    {
        const QString backend = scalar(u"SELECT pg_backend_pid()"_s);
        QCOMPARE(test::value(m_session.other(), u"SELECT pg_terminate_backend(%1, 5000)"_s.arg(backend)),
                 u"true"_s);
        {
            db::Transaction transaction;
            expectWarning(u"^sql: .*terminating connection"_s);
            QVERIFY(!transaction.begun());
        }
        QVERIFY(!db::session().isOpen());
    }
};

QTEST_GUILESS_MAIN(tst_Transaction)
#include "tst_Transaction.moc"
