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
    if (m_begun && !m_ended)
        session().rollback();
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

bool Transaction::commit()
{
    m_ended = true;
    QSqlDatabase database = session();
    if (database.commit())
        return true;
    if (!m_spoilt)
        logFailure(database.lastError().text());
    return false;
}

} // namespace tarn::db
