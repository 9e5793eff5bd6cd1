// One transaction of the session, and the statements that are prepared in it. Main thread only.
//
// A prepared statement must not die before its transaction has ended: inside an aborted one it cannot be
// freed, and would stay in the server. The transaction therefore owns them, and frees them once it is over.
// The statements of ask() are the session's (Prepared); it drops them after a transaction that was not kept.
// Nothing may wait for the network meanwhile: a job that runs in the wait would become a part of it.
#pragma once

#include "common/Prepared.h"

#include <QSqlQuery>
#include <QString>

#include <list>

namespace tarn::db {

class Transaction
{
public:
    /// Begins. Whoever does not ask begun() learns of a failure from the first statement.
    Transaction();
    /// Takes everything back, unless commit() was called.
    ~Transaction();
    Transaction(const Transaction&) = delete;
    Transaction& operator=(const Transaction&) = delete;

    /// Whether the server has begun it; why not is logged. Without it each statement would stand on its own.
    bool begun() const;

    /// The prepared form of @p statement, to be bound and run. The same text gives the same query again. A
    /// text that cannot be prepared is tried again at the next call; db::exec() logs the reason.
    QSqlQuery& prepare(const QString& statement);

    /// Runs a statement in it, prepared for as long as the session where that is possible. Logs nothing.
    Answer ask(const QString& statement, const Values& values);

    /// Takes everything back that was done in it, and begins anew. False when the server does not.
    bool restart();

    /// Notes that nothing of the transaction can be kept, for a reason that has been logged.
    void spoil() { m_spoilt = true; }
    bool isSpoilt() const { return m_spoilt; }

    /// Ends it. False when nothing was kept; the reason is logged, unless the transaction is spoilt.
    bool commit();

private:
    struct Statement
    {
        QString text;
        QSqlQuery query;
        bool isPrepared = false;
    };

    bool m_begun = false;
    bool m_ended = false;
    bool m_spoilt = false;
    QString m_beginError;
    std::list<Statement> m_statements; ///< a list, for their addresses to last
};

} // namespace tarn::db
