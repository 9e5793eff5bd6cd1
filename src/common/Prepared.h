// Statements that live as long as the session: prepared once, run by the client library's own prepared call.
// Qt's driver would write the values of each run into the text of an EXECUTE statement, and the server would
// read them from there.
//
// The session owns them and knows them by their text. Their number is bounded by what they take of the
// server's memory. They go when the session is lost or opened anew, and when a transaction was not kept. With
// another driver, or without the library, each statement goes the ordinary road of QSqlQuery.
//
// A notification that arrives with an answer here is delivered behind the next statement of a QSqlQuery.
// Main thread only.
#pragma once

#include "common/Values.h"

#include <QList>
#include <QString>

#include <optional>

class QSqlQuery;

namespace tarn::db {

/// What the server has made of a statement.
struct Answer
{
    bool ok = false;
    QString error;                ///< why it failed, as logFailure() takes it
    std::optional<QString> value; ///< first column of the first row; nothing when there is no row, or NULL
};

/// A statement with "?" for each of its values.
struct Question
{
    QString statement;
    Values values;
};

/// Placeholders of all statements that the session keeps prepared, together. PostgreSQL takes some 200 bytes
/// for each. Beyond it the statement that was not used for the longest time goes. A larger statement is kept
/// alone.
constexpr qsizetype kMaxPlaceholders = 12'600;

/// What counts for each statement beside its placeholders.
constexpr qsizetype kPlaceholdersPerStatement = 40;

/// Runs the statement, outside a transaction. Logs nothing.
Answer ask(const QString& statement, const Values& values);

/// The same, in or outside a transaction; nothing when the session has only the ordinary road.
std::optional<Answer> askPrepared(const QString& statement, const Values& values);

/// The ordinary road: binds @p values to @p query, which is prepared, and runs it.
Answer askQuery(QSqlQuery& query, const Values& values);

/// Runs all of @p questions at once, in their order and in a transaction: the answers cost one wait. The last
/// answer is the first failure, if there is one; the transaction is spoilt then. Nothing, and nothing has
/// been run, when the session has only the ordinary road, or there are more than kMaxQuestions.
std::optional<QList<Answer>> askAll(const QList<Question>& questions);

/// The requests and answers of so many fit into the buffers of a socket, so that neither side waits for the
/// other to read.
constexpr qsizetype kMaxQuestions = 400;

/// As ask(); false when it fails, which is logged as "sql: ...".
bool exec(const QString& statement, const Values& values);

/// Drops all statements. To be called after a transaction that was not kept. closeSession() does so too.
void dropStatements();

} // namespace tarn::db
