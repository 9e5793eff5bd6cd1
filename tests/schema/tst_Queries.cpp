// The questions of docs/queries.md, each asked as the role that the document names, about the hits and tables
// of tests/data/schema/queries.sql. Answers are in tests/data/queries/, a file for each question.
#include "support/PostgresServer.h"

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QProcessEnvironment>
#include <QRegularExpression>
#include <QTest>

#include <algorithm>

using namespace Qt::Literals::StringLiterals;
using namespace tarn;

namespace {

constexpr qsizetype kLeastQuestions = 20;
constexpr int kPsqlMs = 60'000;

/// Hits of 100 days before those that are asked about: a plan that read them all would be the slow one.
const auto kManyHits =
    u"INSERT INTO tarn.hits (site_id, at, method, path, status, bytes, is_page, ip, visitor, session_id, "
    u"source_kind) "
    "SELECT 1 + n % 4, timestamptz '2024-04-19' - n * interval '86 s', 'GET', '/' || n % 97, 200, 100, true, "
    "inet '192.0.2.0' + n % 200, int8send(n), n, 'direct' FROM generate_series(1, 100000) n; ANALYZE tarn.hits"_s;

struct Question
{
    QString heading;
    QString role;
    QString time;
    QString sql;
    QString sample; ///< the answer, as the document shows it

    /// Name of the file with the answer: the heading's words.
    QString file() const
    {
        QString words = heading.toLower().remove(u'\'');
        words.replace(QRegularExpression(u"[^a-z0-9]+"_s), u"-"_s);
        return words.remove(QRegularExpression(u"^-|-$"_s)) + u".txt"_s;
    }
};

/// What stands in the document. A question that lacks a part has it empty.
struct Document
{
    QString settings; ///< the variables of psql that it sets for all questions
    QList<Question> questions;
    QStringList stray; ///< blocks that belong to no question, or are one too many
};

void takeBlock(Document& document, const QString& language, const QString& block)
{
    Question* question = document.questions.isEmpty() ? nullptr : &document.questions.last();
    if (language == u"psql" && !question && document.settings.isEmpty())
        document.settings = block;
    else if (language == u"sql" && question && question->sql.isEmpty())
        question->sql = block;
    else if (language == u"text" && question && !question->sql.isEmpty() && question->sample.isEmpty())
        question->sample = block;
    else if (language != u"sh")
        document.stray.append(language + u": "_s + block);
}

Document parse(const QString& text)
{
    static const QRegularExpression roleLine(u"^Role: `(\\w+)`\\. Time: ([0-9.]+ m?s[^.]*)\\.$"_s);
    Document document;
    QString language;
    QString block;
    bool inBlock = false;
    for (const QString& line : text.split(u'\n')) {
        if (line.startsWith("```"_L1)) {
            if (inBlock)
                takeBlock(document, language, block);
            language = line.sliced(3);
            block.clear();
            inBlock = !inBlock;
        } else if (inBlock) {
            block += line + u'\n';
        } else if (line.startsWith("### "_L1)) {
            document.questions.append(Question{line.sliced(4), {}, {}, {}, {}});
        } else if (const auto match = roleLine.match(line);
                   match.hasMatch() && !document.questions.isEmpty()) {
            document.questions.last().role = match.captured(1);
            document.questions.last().time = match.captured(2);
        }
    }
    return document;
}

QString contents(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
}

QString answerFile(const QString& name)
{
    return QStringLiteral(TARN_TEST_DATA "/queries/") + name;
}

/// psql pads headings to their column's width; editors take blanks at the end of a line away.
QString withoutBlanksAtLineEnds(QString text)
{
    static const QRegularExpression blanks(u"[ ]+$"_s, QRegularExpression::MultilineOption);
    text.remove(blanks);
    while (text.endsWith(u'\n'))
        text.chop(1);
    return text;
}

/// Relations that the plan reads from end to end.
QStringList scannedWhole(const QJsonObject& plan)
{
    QStringList found;
    if (plan[u"Node Type"].toString() == u"Seq Scan")
        found.append(plan[u"Relation Name"].toString());
    for (const QJsonValue& child : plan[u"Plans"].toArray())
        found.append(scannedWhole(child.toObject()));
    return found;
}

} // namespace

class tst_Queries : public QObject
{
    Q_OBJECT

private:
    static void eachQuestion()
    {
        QTest::addColumn<int>("number");
        const QList<Question> questions =
            parse(contents(test::schemaFile(u"../docs/queries.md"_s))).questions;
        for (int number = 0; number < questions.size(); ++number)
            QTest::newRow(qPrintable(questions[number].file().chopped(4))) << number;
    }

    Question question() const
    {
        QFETCH(const int, number);
        return m_document.questions[number];
    }

    QString makeDatabase()
    {
        QString name = m_server.createDatabase();
        const QString data = QStringLiteral(TARN_TEST_DATA "/schema/queries.sql");
        const QString granted = m_server.runFile(name, test::schemaFile(u"grants.sql"_s),
                                                 {u"-v"_s, u"collector=tarn_collect"_s, u"-v"_s,
                                                  u"panel=tarn_panel"_s, u"-v"_s, u"reader=tarn_reader"_s});
        return granted.isEmpty() && m_server.runFile(name, data).isEmpty() ? name : QString();
    }

    /// What psql prints for @p sql as @p role, errors included.
    QString ask(const QString& database, const QString& role, const QString& sql,
                const QStringList& options = {}) const
    {
        QProcess psql;
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(u"PGTZ"_s, u"Europe/Berlin"_s);
        psql.setProcessEnvironment(environment);
        psql.setProcessChannelMode(QProcess::MergedChannels);
        psql.start(u"psql"_s, QStringList{u"-X"_s, u"-q"_s, u"-h"_s, m_server.socketFolder(), u"-U"_s,
                                          u"tarn_"_s + role, u"-d"_s, database, u"-v"_s, u"ON_ERROR_STOP=1"_s,
                                          u"-v"_s, u"VERBOSITY=sqlstate"_s, u"-P"_s, u"footer=off"_s}
                                  + options);
        psql.write((m_document.settings + sql).toUtf8());
        psql.closeWriteChannel();
        if (!psql.waitForFinished(kPsqlMs))
            return u"psql did not run: "_s + psql.errorString();
        return withoutBlanksAtLineEnds(QString::fromUtf8(psql.readAll()));
    }

    test::PostgresServer m_server;
    Document m_document;
    QString m_database;
    QString m_large; ///< the same with many hits

private Q_SLOTS:
    void initTestCase()
    {
        m_document = parse(contents(test::schemaFile(u"../docs/queries.md"_s)));
        QVERIFY(m_server.start());
        const QSqlDatabase server = m_server.connect(u"postgres"_s, u"server"_s);
        for (const QString& role : {u"collect"_s, u"panel"_s, u"reader"_s})
            test::run(server, u"CREATE ROLE tarn_%1 LOGIN"_s.arg(role));
        m_large = makeDatabase();
        QVERIFY(!m_large.isEmpty());
        test::run(m_server.connect(m_large, u"session"_s), kManyHits);
        // Last, since the live visitors are those of five minutes from now.
        m_database = makeDatabase();
        QVERIFY(!m_database.isEmpty());
    }

    void cleanupTestCase()
    {
        QSqlDatabase::removeDatabase(u"session"_s);
        QSqlDatabase::removeDatabase(u"server"_s);
    }

    void init() { QTest::failOnWarning(QRegularExpression(u".?"_s)); }

    void partsOfADocument()
    {
        const Document document =
            parse(u"```psql\n\\set a 1\n```\n### Who's first?\nRole: `reader`. Time: 0.5 "
                  u"ms.\n\n```sql\nSELECT 1;\n```\n"
                  "\n```text\n 1\n```\n```sql\nSELECT 2;\n```\n### Second\nRole: reader.\n"_s);
        QCOMPARE(document.settings, u"\\set a 1\n"_s);
        QCOMPARE(document.questions.size(), 2);
        QCOMPARE(document.questions[0].file(), u"whos-first.txt"_s);
        QCOMPARE(document.questions[0].role, u"reader"_s);
        QCOMPARE(document.questions[0].time, u"0.5 ms"_s);
        QCOMPARE(document.questions[0].sql, u"SELECT 1;\n"_s);
        QCOMPARE(document.questions[0].sample, u" 1\n"_s);
        QCOMPARE(document.questions[1].role, QString());
        QCOMPARE(document.stray, QStringList(u"sql: SELECT 2;\n"_s));
    }

    void everyQuestionIsWhole()
    {
        QVERIFY2(m_document.questions.size() >= kLeastQuestions,
                 qPrintable(QString::number(m_document.questions.size())));
        QVERIFY(!m_document.settings.isEmpty());
        QCOMPARE(m_document.stray, QStringList());
        QStringList incomplete;
        for (const Question& question : m_document.questions) {
            const bool knownRole = question.role == u"reader" || question.role == u"panel";
            if (!knownRole || question.time.isEmpty() || question.sql.isEmpty() || question.sample.isEmpty())
                incomplete.append(question.heading);
        }
        QCOMPARE(incomplete, QStringList());
    }

    void everyAnswerHasAQuestion()
    {
        QStringList expected;
        for (const Question& question : m_document.questions)
            expected.append(question.file());
        expected.sort();
        QCOMPARE(expected.removeDuplicates(), 0);
        QCOMPARE(QDir(answerFile({})).entryList(QDir::Files, QDir::Name), expected);
    }

    void answers_data() { eachQuestion(); }
    void answers()
    {
        const Question asked = question();
        const QString answer = ask(m_database, asked.role, asked.sql);
        QFile file(answerFile(asked.file()));
        if (qEnvironmentVariableIsSet("UPDATE_EXPECTED")) {
            const QByteArray text = answer.toUtf8() + '\n';
            QVERIFY(file.open(QIODevice::WriteOnly) && file.write(text) == text.size());
            return;
        }
        QVERIFY2(file.exists(), qPrintable(u"no answer to compare with: "_s + file.fileName()));
        const QStringList expected = withoutBlanksAtLineEnds(contents(file.fileName())).split(u'\n');
        const QStringList actual = answer.split(u'\n');
        for (qsizetype line = 0; line < std::max(actual.size(), expected.size()); ++line)
            QCOMPARE(actual.value(line, u"(no line)"_s), expected.value(line, u"(no line)"_s));
    }

    void theDocumentShowsTheAnswer_data() { eachQuestion(); }
    void theDocumentShowsTheAnswer()
    {
        const Question asked = question();
        QCOMPARE(withoutBlanksAtLineEnds(asked.sample),
                 withoutBlanksAtLineEnds(contents(answerFile(asked.file()))));
    }

    void questionsOfThePanelAreNotForTheReader()
    {
        int asked = 0;
        for (const Question& question : m_document.questions) {
            if (question.role != u"panel")
                continue;
            const QString answer = ask(m_database, u"reader"_s, question.sql);
            QVERIFY2(answer.contains("42501"_L1), qPrintable(question.heading + u": "_s + answer));
            ++asked;
        }
        QVERIFY(asked > 0);
    }

    void whatTheReaderMayAskThePanelMay()
    {
        QString all;
        for (const Question& question : m_document.questions)
            all += u"EXPLAIN "_s + question.sql; // checks rights as running it does
        const QString plans = ask(m_database, u"panel"_s, all);
        QVERIFY2(!plans.contains("ERROR"_L1), qPrintable(plans));
        QCOMPARE(plans.count("QUERY PLAN"_L1), m_document.questions.size());
    }

    /// As the document says a program does.
    void parametersInPlaceOfVariables()
    {
        static const QRegularExpression variable(u":'\\w+'"_s);
        QString all;
        for (const Question& question : m_document.questions) {
            QString sql = question.sql;
            for (int number = 1; sql.contains(variable); ++number)
                sql.replace(variable.match(sql).captured(), u'$' + QString::number(number));
            all += u"PREPARE \"%1\" AS "_s.arg(question.heading.left(60)) + sql;
        }
        QCOMPARE(ask(m_database, u"panel"_s, all), QString());
    }

    void noQuestionReadsAllHits_data() { eachQuestion(); }
    void noQuestionReadsAllHits()
    {
        const Question asked = question();
        const QString text =
            ask(m_large, asked.role, u"EXPLAIN (FORMAT JSON) "_s + asked.sql, {u"-A"_s, u"-t"_s});
        const QJsonObject plan = QJsonDocument::fromJson(text.toUtf8()).array().at(0)[u"Plan"].toObject();
        QVERIFY2(plan.contains(u"Node Type"), qPrintable(text));
        QVERIFY2(!scannedWhole(plan).contains(u"hits"_s), qPrintable(text));
        const bool readsHits =
            asked.sql.contains("tarn.hits"_L1) || asked.sql.contains("tarn.live_visitors"_L1);
        QCOMPARE(text.contains("\"Relation Name\": \"hits\""_L1), readsHits);
    }

    /// The check above would see one: the data is enough for a scan to be the planner's choice where no index
    /// serves.
    void aQuestionThatReadsAllHitsIsSeen()
    {
        const QString text = ask(m_large, u"panel"_s,
                                 u"EXPLAIN (FORMAT JSON) SELECT count(*) FROM tarn.sites WHERE id IN "
                                 "(SELECT site_id FROM tarn.hits WHERE path = :'page')"_s,
                                 {u"-A"_s, u"-t"_s});
        const QJsonObject plan = QJsonDocument::fromJson(text.toUtf8()).array().at(0)[u"Plan"].toObject();
        QVERIFY2(scannedWhole(plan).contains(u"hits"_s), qPrintable(text));
    }
};

QTEST_GUILESS_MAIN(tst_Queries)
#include "tst_Queries.moc"
