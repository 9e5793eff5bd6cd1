#include "common/Prepared.h"

#include "common/Transaction.h"
#include "support/ProductSession.h"

#include <QRegularExpression>
#include <QSignalSpy>
#include <QSqlDriver>
#include <QTest>

using namespace Qt::Literals::StringLiterals;
using namespace tarn;
using db::Values;
using test::run;
using test::scalar;

namespace {

const auto kKillMe = u"SELECT pg_terminate_backend(pg_backend_pid(), 5000)"_s;
const auto kOwnCount = u"SELECT count(*) FROM pg_prepared_statements WHERE name LIKE 'tarn%'"_s;

Values text(const QString& value)
{
    Values values;
    values.addText(value);
    return values;
}

Values number(int value)
{
    Values values;
    values.addInt(value);
    return values;
}

/// Statement number @p n of many.
QString statement(int n)
{
    return u"SELECT %1"_s.arg(n);
}

} // namespace

class tst_Prepared : public QObject
{
    Q_OBJECT

private:
    static QString answer(const QString& statement, const Values& values = {})
    {
        const db::Answer answer = db::ask(statement, values);
        return answer.ok ? answer.value.value_or(u"nothing"_s) : u"failed: "_s + answer.error;
    }

    static bool isPrepared(const QString& statement)
    {
        return scalar(u"SELECT count(*) FROM pg_prepared_statements WHERE statement = '%1'"_s.arg(statement))
               == "1"_L1;
    }

    static void reopen()
    {
        QTest::ignoreMessage(QtInfoMsg, "database: reconnected");
        QVERIFY(db::ensure(false));
    }

    test::PostgresServer m_server;
    test::ProductSession m_session{m_server};

private Q_SLOTS:
    void initTestCase() { QVERIFY(m_server.start()); }

    void init()
    {
        QTest::failOnWarning(QRegularExpression(u".?"_s));
        QVERIFY(m_session.open());
        run(u"CREATE TABLE kept (number int CHECK (number < 100))"_s);
    }

    void cleanup() { m_session.close(); }

    void answers()
    {
        QCOMPARE(answer(u"SELECT 'first ' || ?, 'second'"_s, text(u"é"_s)), u"first é"_s);
        QCOMPARE(answer(u"SELECT NULL"_s), u"nothing"_s);
        QCOMPARE(answer(u"SELECT 1 WHERE false"_s), u"nothing"_s);
        QCOMPARE(answer(u"INSERT INTO kept VALUES (?)"_s, number(7)), u"nothing"_s);
        QCOMPARE(scalar(u"SELECT number FROM kept"_s), u"7"_s);
    }

    void failuresHaveAReason()
    {
        QVERIFY(answer(u"SELECT * FROM missing"_s).startsWith(u"failed: ERROR:  relation \"missing\""_s));
        QVERIFY(answer(u"SELECT * FROM missing"_s).endsWith(u"(42P01)"_s));
        QVERIFY(answer(u"INSERT INTO kept VALUES (?)"_s, number(100)).endsWith(u"(23514)"_s));
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression(u"^sql: ERROR: +relation \"missing\""_s));
        QVERIFY(!db::exec(u"SELECT * FROM missing"_s, {}));
    }

    void everyKindArrivesAsItIs_data()
    {
        QTest::addColumn<Values>("value");
        QTest::addColumn<QString>("type");
        QTest::addColumn<QString>("arrived");
        const auto row = [](const char* name, const QString& type, const QString& arrived, auto add) {
            Values values;
            add(values);
            QTest::newRow(name) << values << type << arrived;
        };
        const auto at = [](int year, int month, int day) {
            return QDateTime(QDate(year, month, day), QTime(1, 2, 3, 4), Qt::UTC);
        };
        row("true", u"bool"_s, u"true"_s, [](Values& v) { v.addBool(true); });
        row("smallest-integer", u"int"_s, u"-2147483648"_s, [](Values& v) { v.addInt(-2147483647 - 1); });
        row("largest-bigint", u"bigint"_s, u"9223372036854775807"_s,
            [](Values& v) { v.addBigInt(9223372036854775807); });
        row("integer-for-a-bigint", u"bigint"_s, u"-5"_s, [](Values& v) { v.addInt(-5); });
        row("double", u"float8"_s, u"0.1"_s, [](Values& v) { v.addDouble(0.1); });
        row("not-a-number", u"float8"_s, u"NaN"_s, [](Values& v) { v.addDouble(qQNaN()); });
        row("text", u"text"_s, u"a'\\é"_s, [](Values& v) { v.addText(u"a'\\é"_s); });
        row("empty-text", u"text"_s, u""_s, [](Values& v) { v.addText(u""_s); });
        row("address", u"inet"_s, u"2001:db8::1/128"_s, [](Values& v) { v.addText(u"2001:db8:0::1"_s); });
        row("bytes", u"bytea"_s, u"\\000\\377"_s, [](Values& v) { v.addBytes(QByteArray("\0\xff", 2)); });
        row("time", u"timestamptz"_s, u"2024-02-29 01:02:03.004+00"_s,
            [&](Values& v) { v.addTime(at(2024, 2, 29)); });
        row("first-year", u"timestamptz"_s, u"0001-01-01 01:02:03.004+00"_s,
            [&](Values& v) { v.addTime(at(1, 1, 1)); });
        row("last-year", u"timestamptz"_s, u"9999-12-31 01:02:03.004+00"_s,
            [&](Values& v) { v.addTime(at(9999, 12, 31)); });
        row("date", u"date"_s, u"1999-12-31"_s, [](Values& v) { v.addDate(QDate(1999, 12, 31)); });
        row("null", u"int"_s, u"nothing"_s, [](Values& v) { v.addNull(Values::Kind::Int); });
    }
    void everyKindArrivesAsItIs()
    {
        QFETCH(const Values, value);
        QFETCH(const QString, type);
        run(u"SET TimeZone = 'UTC'"_s);
        QTEST(answer(u"SELECT CAST(? AS %1)::text"_s.arg(type), value), "arrived");
    }

    void oneTextIsPreparedOnce()
    {
        for (int i = 0; i < 3; ++i)
            QCOMPARE(answer(u"SELECT ?::int + 1"_s, number(i)), QString::number(i + 1));
        QCOMPARE(scalar(kOwnCount), u"1"_s);
    }

    void whatWasNotUsedLongestGoesPastTheirNumber()
    {
        const int most = db::kMaxPlaceholders / db::kPlaceholdersPerStatement;
        for (int i = 0; i < most; ++i)
            answer(statement(i));
        QCOMPARE(scalar(kOwnCount), QString::number(most));
        answer(statement(0));
        answer(statement(most));
        QCOMPARE(scalar(kOwnCount), QString::number(most));
        QVERIFY(isPrepared(statement(0)));
        QVERIFY(!isPrepared(statement(1)));
        QVERIFY(isPrepared(statement(most)));
    }

    void aStatementLargerThanAllIsKeptAlone()
    {
        answer(statement(1));
        Values values;
        for (qsizetype i = 0; i < db::kMaxPlaceholders; ++i)
            values.addText(u"x"_s);
        const QString large =
            u"SELECT 1 WHERE 'y' NOT IN ("_s + u"?, "_s.repeated(values.size() - 1) + u"?)"_s;
        QCOMPARE(answer(large, values), u"1"_s);
        QCOMPARE(scalar(kOwnCount), u"1"_s);
        QVERIFY(!isPrepared(statement(1)));
        QCOMPARE(answer(statement(1)), u"1"_s);
        QCOMPARE(scalar(kOwnCount), u"1"_s);
    }

    void aStatementThatTheServerHasLostIsPreparedAnew()
    {
        QCOMPARE(answer(statement(1)), u"1"_s);
        run(u"DEALLOCATE ALL"_s);
        QVERIFY(answer(statement(1)).endsWith(u"(26000)"_s));
        QCOMPARE(answer(statement(1)), u"1"_s);
    }

    void reconnectsDropThem()
    {
        QCOMPARE(answer(statement(1)), u"1"_s);
        QTest::ignoreMessage(QtInfoMsg, "database: reconnected");
        QVERIFY(db::ensure(true));
        QCOMPARE(scalar(kOwnCount), u"0"_s);
        QCOMPARE(answer(statement(1)), u"1"_s);
    }

    void aLostSessionSpoilsNoTransactionOfTheNext()
    {
        QCOMPARE(answer(statement(1)), u"1"_s);
        const QString lost = answer(kKillMe);
        QVERIFY2(lost.contains(u"the connection"_s), qPrintable(lost));
        QCOMPARE(answer(statement(1)), u"failed: "_s);
        reopen();
        db::Transaction transaction;
        QCOMPARE(transaction.ask(statement(1), {}).value, u"1"_s);
        QVERIFY(transaction.ask(u"INSERT INTO kept VALUES (?)"_s, number(1)).ok);
        QVERIFY(transaction.commit());
        QCOMPARE(scalar(u"SELECT count(*) FROM kept"_s), u"1"_s);
    }

    void aTransactionThatIsNotKeptDropsThem_data()
    {
        QTest::addColumn<bool>("commit");
        QTest::newRow("refused") << true;
        QTest::newRow("rolled-back") << false;
    }
    void aTransactionThatIsNotKeptDropsThem()
    {
        QFETCH(const bool, commit);
        QCOMPARE(answer(statement(1)), u"1"_s);
        {
            db::Transaction transaction;
            QVERIFY(!transaction.ask(u"INSERT INTO kept VALUES (?)"_s, number(100)).ok);
            transaction.spoil();
            if (commit)
                QVERIFY(!transaction.commit());
        }
        QCOMPARE(scalar(kOwnCount), u"0"_s);
        QCOMPARE(answer(statement(1)), u"1"_s);
    }

    void aTransactionThatIsKeptKeepsThem()
    {
        {
            db::Transaction transaction;
            QCOMPARE(transaction.ask(statement(1), {}).value, u"1"_s);
            QVERIFY(transaction.commit());
        }
        QVERIFY(isPrepared(statement(1)));
    }

    void restartTakesBackWhatWasDone()
    {
        db::Transaction transaction;
        QVERIFY(transaction.ask(u"INSERT INTO kept VALUES (?)"_s, number(1)).ok);
        QVERIFY(!transaction.ask(u"INSERT INTO kept VALUES (?)"_s, number(100)).ok);
        QVERIFY(transaction.restart());
        QVERIFY(transaction.ask(u"INSERT INTO kept VALUES (?)"_s, number(2)).ok);
        QVERIFY(transaction.commit());
        QCOMPARE(scalar(u"SELECT string_agg(number::text, ' ') FROM kept"_s), u"2"_s);
    }

    void manyAnswersAtOnceComeInOrder()
    {
        QList<db::Question> questions;
        for (int i = 0; i < db::kMaxQuestions; ++i)
            questions.append({i % 2 == 0 ? u"SELECT ?::int + 1"_s : u"SELECT ?::int + 2"_s, number(i)});
        db::Transaction transaction;
        const auto answers = db::askAll(questions);
        QVERIFY(answers);
        QCOMPARE(answers->size(), questions.size());
        for (int i = 0; i < questions.size(); ++i)
            QCOMPARE(answers->at(i).value, QString::number(i + 1 + i % 2));
        questions.append(questions.constFirst());
        QVERIFY(!db::askAll(questions));
        QVERIFY(transaction.commit());
    }

    void theFirstFailureIsTheLastAnswer_data()
    {
        QTest::addColumn<QString>("bad");
        QTest::addColumn<int>("answers");
        QTest::newRow("refused-value") << u"INSERT INTO kept VALUES (100)"_s << 2;
        QTest::newRow("no-statement") << u"SELECT FROM WHERE"_s << 1;
    }
    void theFirstFailureIsTheLastAnswer()
    {
        QFETCH(const QString, bad);
        QFETCH(const int, answers);
        db::Transaction transaction;
        const auto got = db::askAll({
            {statement(1), {}},
            {bad,          {}},
            {statement(2), {}}
        });
        QVERIFY(got);
        QCOMPARE(got->size(), answers);
        QVERIFY(!got->constLast().ok);
        QVERIFY(!got->constLast().error.isEmpty());
        QVERIFY(!transaction.ask(statement(1), {}).ok); // spoilt
        QVERIFY(transaction.restart());
        QCOMPARE(transaction.ask(statement(1), {}).value, u"1"_s);
        QVERIFY(transaction.commit());
    }

    void aSessionLostAmongManyIsOpenedAgain()
    {
        {
            db::Transaction transaction;
            const auto got = db::askAll({
                {statement(1), {}},
                {kKillMe,      {}},
                {statement(2), {}}
            });
            QVERIFY(got);
            QVERIFY(!got->constLast().ok);
            QVERIFY(!db::session().isOpen());
            QTest::ignoreMessage(QtWarningMsg, QRegularExpression(u"[Dd]atabase not open"_s));
        }
        reopen();
        QCOMPARE(answer(statement(2)), u"2"_s);
    }

    void aNotificationWaitsForTheNextQueryOnly()
    {
        QSignalSpy spy(db::session().driver(), &QSqlDriver::notification);
        QVERIFY(db::session().driver()->subscribeToNotification(u"test"_s));
        QCOMPARE(answer(u"SELECT pg_notify('test', ?)"_s, text(u"hello"_s)), u""_s);
        run(u"SELECT 1"_s);
        QTRY_COMPARE(spy.size(), 1);
        QCOMPARE(spy.at(0).at(2).toString(), u"hello"_s);
    }
};

QTEST_GUILESS_MAIN(tst_Prepared)
#include "tst_Prepared.moc"
