// What the tests of the schema ask the server about a statement: what it reads, and how it fails.
#pragma once

#include "support/PostgresServer.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSqlError>
#include <QSqlQuery>

namespace tarn::test {

/// Pages of shared memory that @p statement looks at, run once; -1 when the plan does not say.
inline int pagesRead(const QSqlDatabase& database, const QString& statement)
{
    const QString text =
        value(database, QStringLiteral("EXPLAIN (ANALYZE, BUFFERS, FORMAT JSON) ") + statement);
    const QJsonObject plan = QJsonDocument::fromJson(text.toUtf8()).array().at(0)[u"Plan"].toObject();
    const QJsonValue hit = plan[u"Shared Hit Blocks"];
    const QJsonValue read = plan[u"Shared Read Blocks"];
    return hit.isDouble() && read.isDouble() ? hit.toInt() + read.toInt() : -1;
}

/// Pages of a table or an index.
inline int pagesOf(const QSqlDatabase& database, const QString& relation)
{
    return value(database, QStringLiteral("SELECT pg_relation_size('%1') / 8192").arg(relation)).toInt();
}

/// The plan of @p statement, one step to a line; the statement is not run.
inline QString planOf(const QSqlDatabase& database, const QString& statement)
{
    QSqlQuery plan(QStringLiteral("EXPLAIN ") + statement, database);
    QString text;
    while (plan.next())
        text += plan.value(0).toString() + u'\n';
    return text;
}

/// The server's five-character code of the error that @p statement ends with, empty when it succeeds.
inline QString errorOf(const QSqlDatabase& database, const QString& statement)
{
    QSqlQuery query(database);
    return query.exec(statement) ? QString() : query.lastError().nativeErrorCode();
}

} // namespace tarn::test
