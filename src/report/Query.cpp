#include "report/Query.h"

#include "common/Db.h"

#include <QSqlError>

using namespace Qt::Literals::StringLiterals;

namespace tarn::report {

namespace {

const auto kBegin = u"BEGIN ISOLATION LEVEL REPEATABLE READ READ ONLY"_s;

/// Compiling a statement that runs for milliseconds costs more than it saves. Sums over some 100,000 values
/// are hashed in memory, for which PostgreSQL takes twice what is named here.
const auto kLimits = u"SELECT set_config('statement_timeout', '60s', true), set_config('jit', 'off', true), "
                     "set_config('work_mem', '32MB', true)"_s;

const auto kNow =
    u"SELECT current_date, extract(epoch FROM now())::bigint, extract(timezone FROM now())::bigint, "
    "to_char(now(), 'YYYY-MM-DD HH24:MI'), current_setting('TimeZone')"_s;

} // namespace

std::optional<QSqlQuery> select(const QString& statement, const QVariantList& values)
{
    std::optional<QSqlQuery> query(std::in_place);
    query->setForwardOnly(true);
    query->prepare(statement);
    for (const QVariant& value : values)
        query->addBindValue(value);
    if (!db::exec(*query))
        query.reset();
    return query;
}

Reading::Reading()
{
    // Not a statement that can be prepared.
    QSqlQuery query;
    m_begun = query.exec(kBegin);
    if (!m_begun) {
        qWarning("sql: %s", qPrintable(query.lastError().text()));
        return;
    }
    m_begun = select(kLimits).has_value();
}

Reading::~Reading()
{
    if (m_begun)
        QSqlQuery().exec(u"ROLLBACK"_s);
}

std::optional<Now> readNow()
{
    std::optional<QSqlQuery> query = select(kNow);
    if (!query || !query->next())
        return std::nullopt;
    return Now{query->value(0).toDate(), query->value(1).toLongLong(), query->value(2).toLongLong(),
               query->value(3).toString(), query->value(4).toString()};
}

} // namespace tarn::report
