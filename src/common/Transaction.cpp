#include "common/Transaction.h"

#include "common/Db.h"

#include <QSqlDatabase>
#include <QSqlError>

#include <algorithm>

namespace tarn::db {

Transaction::Transaction()
{
    QSqlDatabase database = session();
    m_begun = database.transaction();
    if (!m_begun)
        m_beginError = database.lastError().text();
}

Transaction::~Transaction()
{
    if (m_begun && !m_ended) {
        session().rollback();
        dropStatements();
    }
}

bool Transaction::begun() const
{
    if (!m_begun)
        logFailure(m_beginError);
    return m_begun;
}

QSqlQuery& Transaction::prepare(const QString& statement)
{
    const auto has = [&statement](const Statement& known) { return known.text == statement; };
    auto found = std::find_if(m_statements.begin(), m_statements.end(), has);
    if (found == m_statements.end())
        found = m_statements.insert(found, {statement, QSqlQuery(session())});
    if (!found->isPrepared)
        found->isPrepared = found->query.prepare(statement);
    return found->query;
}

Answer Transaction::ask(const QString& statement, const Values& values)
{
    if (std::optional<Answer> answer = askPrepared(statement, values))
        return *answer;
    return askQuery(prepare(statement), values);
}

bool Transaction::restart()
{
    QSqlDatabase database = session();
    return database.rollback() && database.transaction();
}

bool Transaction::commit()
{
    m_ended = true;
    QSqlDatabase database = session();
    const bool kept = database.commit();
    if (!kept && !m_spoilt)
        logFailure(database.lastError().text());
    if (!kept || m_spoilt)
        dropStatements();
    return kept;
}

} // namespace tarn::db
