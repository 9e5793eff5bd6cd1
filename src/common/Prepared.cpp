#include "common/Prepared.h"

#include "common/ClientLibrary.h"
#include "common/Db.h"

#include <QHash>
#include <QSqlDatabase>
#include <QSqlDriver>
#include <QSqlQuery>

#include <algorithm>
#include <utility>
#include <vector>

using namespace Qt::Literals::StringLiterals;

namespace tarn::db {

namespace {

/// PostgreSQL's type number of a kind (pg_type.dat of its source); 0 is the type that the statement implies.
constexpr unsigned typeNumber(Values::Kind kind)
{
    switch (kind) {
    case Values::Kind::Bool:
        return 16;
    case Values::Kind::Bytes:
        return 17;
    case Values::Kind::BigInt:
        return 20;
    case Values::Kind::Int:
        return 23;
    case Values::Kind::Double:
        return 701;
    case Values::Kind::Date:
        return 1082;
    case Values::Kind::Time:
        return 1184;
    case Values::Kind::Text:
        break;
    }
    return 0;
}

/// @p statement with "$1", "$2" for its question marks. None of the statements has one in a text.
QByteArray numbered(const QString& statement)
{
    const QByteArray plain = statement.toUtf8();
    QByteArray text;
    text.reserve(plain.size() * 2);
    int number = 0;
    for (const char c : plain) {
        if (c == '?') {
            text.append('$').append(QByteArray::number(++number));
        } else {
            text.append(c);
        }
    }
    return text;
}

/// @p values as the client library's calls take them, as long as they live.
struct Arguments
{
    explicit Arguments(const Values& from)
        : count(static_cast<int>(from.size()))
        , values(static_cast<std::size_t>(count))
        , lengths(values.size())
        , formats(values.size())
    {
        for (std::size_t i = 0; i < values.size(); ++i) {
            const auto index = static_cast<qsizetype>(i);
            values[i] = from.bytes(index);
            lengths[i] = from.length(index);
            formats[i] = from.kind(index) == Values::Kind::Text ? 0 : 1;
        }
    }

    int count;
    std::vector<const char*> values;
    std::vector<int> lengths;
    std::vector<int> formats;
};

/// The statements that one session has prepared. A child of the driver, which is the session to Qt.
class Statements : public QObject
{
public:
    Statements(QSqlDriver* driver, const ClientLibrary* library)
        : QObject(driver)
        , m_library(library)
    {
        setObjectName(kSessionKeep);
    }

    /// Those of the session; null when it has only the ordinary road.
    static Statements* ofSession();

    Answer ask(const QString& statement, const Values& values);
    QList<Answer> askAll(const QList<Question>& questions);
    /// A pipeline could not be ended: the driver can run nothing any more.
    bool isStuck() const { return m_isStuck; }
    /// Frees all of them in the server, if it still knows the session.
    void drop();

private:
    struct Statement
    {
        QByteArray name;
        qsizetype weight = 0; ///< in placeholders
        quint64 lastUse = 0;
    };

    QByteArray prepare(const QString& statement, const Values& values, Answer& answer);
    void makeRoom(qsizetype weight);
    void forget(const QString& statement);
    void freeUnwanted();
    Answer take(PgResult* result) const;
    QList<Answer> takeAll() const;

    const ClientLibrary* m_library;
    Connection* m_connection = nullptr;
    QHash<QString, Statement> m_statements; ///< by their text
    QList<QByteArray> m_unwanted;           ///< names of statements that have failed
    qsizetype m_weight = 0;
    quint64 m_uses = 0;
    quint64 m_names = 0;
    bool m_isStuck = false;
};

Statements* Statements::ofSession()
{
    const QSqlDatabase database = session();
    QSqlDriver* const driver = database.driver();
    if (!driver || !driver->isOpen())
        return nullptr;
    const ClientLibrary* const library = clientLibrary();
    Connection* const connection = connectionOf(database);
    if (!library || !library->runsStatements || !connection)
        return nullptr;
    auto* known =
        static_cast<Statements*>(driver->findChild<QObject*>(kSessionKeep, Qt::FindDirectChildrenOnly));
    if (!known)
        known = new Statements(driver, library); // the driver's
    known->m_connection = connection;
    return known;
}

/// The result as an answer; it is freed.
Answer Statements::take(PgResult* result) const
{
    Answer answer;
    const int status = m_library->resultStatus(result); // a failure when there is no result
    answer.ok = status == kCommandOk || status == kTuplesOk;
    if (answer.ok && status == kTuplesOk && m_library->tupleCount(result) > 0
        && m_library->isNull(result, 0, 0) == 0) {
        answer.value =
            QString::fromUtf8(m_library->value(result, 0, 0), m_library->valueLength(result, 0, 0));
    }
    if (!answer.ok) {
        const char* const reason =
            result ? m_library->resultErrorMessage(result) : m_library->errorMessage(m_connection);
        answer.error = QString::fromUtf8(reason);
        if (const char* state = result ? m_library->resultErrorField(result, kSqlStateField) : nullptr)
            answer.error += u'(' + QString::fromLatin1(state) + u')';
    }
    m_library->clear(result);
    return answer;
}

/// The name of the prepared form of @p statement. Empty when it cannot be prepared; @p answer says why.
QByteArray Statements::prepare(const QString& statement, const Values& values, Answer& answer)
{
    freeUnwanted();
    if (const auto known = m_statements.find(statement); known != m_statements.end()) {
        known->lastUse = ++m_uses;
        return known->name;
    }
    const qsizetype weight = values.size() + kPlaceholdersPerStatement;
    makeRoom(weight);
    QList<unsigned> types;
    for (qsizetype i = 0; i < values.size(); ++i)
        types.append(typeNumber(values.kind(i)));
    QByteArray name = "tarn_" + QByteArray::number(++m_names);
    answer = take(m_library->prepare(m_connection, name.constData(), numbered(statement).constData(),
                                     static_cast<int>(types.size()), types.constData()));
    if (!answer.ok)
        return {};
    m_statements.insert(statement, {name, weight, ++m_uses});
    m_weight += weight;
    return name;
}

/// Frees the statements that were not used for the longest time, until there is room for @p weight more.
void Statements::makeRoom(qsizetype weight)
{
    while (!m_statements.isEmpty() && m_weight + weight > kMaxPlaceholders) {
        const auto oldest =
            std::min_element(m_statements.cbegin(), m_statements.cend(),
                             [](const Statement& a, const Statement& b) { return a.lastUse < b.lastUse; });
        // NOLINTNEXTLINE(performance-unnecessary-copy-initialization): forget() takes the entry away
        const QString text = oldest.key();
        forget(text);
    }
    freeUnwanted();
}

void Statements::forget(const QString& statement)
{
    const Statement known = m_statements.take(statement);
    m_weight -= known.weight;
    if (!known.name.isEmpty())
        m_unwanted.append(known.name);
}

/// Frees what is not wanted any more in the server. Not in a transaction, which would end with a statement
/// that the server does not know.
void Statements::freeUnwanted()
{
    if (m_unwanted.isEmpty() || m_library->transactionStatus(m_connection) != kTransactionIdle)
        return;
    for (const QByteArray& name : std::as_const(m_unwanted))
        m_library->clear(m_library->exec(m_connection, QByteArray("DEALLOCATE " + name).constData()));
    m_unwanted.clear();
}

void Statements::drop()
{
    for (const Statement& statement : std::as_const(m_statements))
        m_unwanted.append(statement.name);
    freeUnwanted();
}

Answer Statements::ask(const QString& statement, const Values& values)
{
    Answer answer;
    const QByteArray name = prepare(statement, values, answer);
    if (name.isEmpty())
        return answer;
    const Arguments arguments(values);
    answer =
        take(m_library->execPrepared(m_connection, name.constData(), arguments.count, arguments.values.data(),
                                     arguments.lengths.data(), arguments.formats.data(), 0));
    // The server can have lost the statement, as by DISCARD ALL: the next run prepares it anew.
    if (!answer.ok)
        forget(statement);
    return answer;
}

/// The answers of a pipeline up to its end, or up to the loss of the session.
QList<Answer> Statements::takeAll() const
{
    QList<Answer> answers;
    bool isBetween = false; // two statements, or behind all
    while (m_library->status(m_connection) == kConnectionOk) {
        PgResult* const result = m_library->getResult(m_connection);
        if (result && m_library->resultStatus(result) == kPipelineSync) {
            m_library->clear(result);
            break;
        }
        if (!result && std::exchange(isBetween, true))
            break;
        if (result) {
            isBetween = false;
            answers.append(take(result));
        }
    }
    return answers;
}

/// The answers up to the first failure.
QList<Answer> Statements::askAll(const QList<Question>& questions)
{
    QList<QByteArray> names;
    for (const Question& question : questions) {
        Answer answer;
        names.append(prepare(question.statement, question.values, answer));
        if (names.constLast().isEmpty())
            return {answer};
    }
    bool sent = m_library->enterPipelineMode(m_connection) != 0;
    for (qsizetype i = 0; sent && i < questions.size(); ++i) {
        const Arguments arguments(questions.at(i).values);
        sent = m_library->sendQueryPrepared(m_connection, names.at(i).constData(), arguments.count,
                                            arguments.values.data(), arguments.lengths.data(),
                                            arguments.formats.data(), 0)
               != 0;
    }
    QList<Answer> answers;
    if (sent && m_library->pipelineSync(m_connection) != 0)
        answers = takeAll();
    m_isStuck = m_library->exitPipelineMode(m_connection) == 0;
    const auto isFailure = [](const Answer& answer) { return !answer.ok; };
    const auto failure = std::find_if(answers.begin(), answers.end(), isFailure);
    if (failure == answers.end() && answers.size() == questions.size())
        return answers;
    for (const Question& question : questions)
        forget(question.statement);
    if (failure != answers.end()) {
        answers.erase(failure + 1, answers.end());
    } else {
        answers.append(Answer());
    }
    return answers;
}

} // namespace

std::optional<Answer> askPrepared(const QString& statement, const Values& values)
{
    if (!session().isOpen())
        return Answer();
    Statements* const statements = Statements::ofSession();
    return statements ? std::optional(statements->ask(statement, values)) : std::nullopt;
}

Answer askQuery(QSqlQuery& query, const Values& values)
{
    for (qsizetype i = 0; i < values.size(); ++i)
        query.addBindValue(values.variant(i));
    Answer answer;
    if (const std::optional<QString> reason = runForReason(query)) {
        answer.error = *reason;
        return answer;
    }
    answer.ok = true;
    if (query.next() && !query.isNull(0))
        answer.value = query.value(0).toString();
    return answer;
}

Answer ask(const QString& statement, const Values& values)
{
    if (std::optional<Answer> answer = askPrepared(statement, values))
        return *answer;
    QSqlQuery query;
    query.prepare(statement);
    return askQuery(query, values);
}

std::optional<QList<Answer>> askAll(const QList<Question>& questions)
{
    Statements* const statements =
        questions.size() <= kMaxQuestions && session().isOpen() ? Statements::ofSession() : nullptr;
    if (!statements)
        return std::nullopt;
    QList<Answer> answers = statements->askAll(questions);
    if (statements->isStuck())
        closeSession();
    return answers;
}

bool exec(const QString& statement, const Values& values)
{
    const Answer answer = ask(statement, values);
    if (!answer.ok)
        logFailure(answer.error);
    return answer.ok;
}

void dropStatements()
{
    QSqlDriver* const driver = session().driver();
    auto* const statements =
        driver
            ? static_cast<Statements*>(driver->findChild<QObject*>(kSessionKeep, Qt::FindDirectChildrenOnly))
            : nullptr;
    if (!statements)
        return;
    if (driver->isOpen())
        statements->drop();
    delete statements;
}

} // namespace tarn::db
