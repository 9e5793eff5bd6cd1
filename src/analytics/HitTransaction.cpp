#include "analytics/HitTransaction.h"

#include "common/Db.h"

#include <QSqlDatabase>
#include <QSqlQuery>
#include <QStringList>

#include <utility>

using namespace Qt::Literals::StringLiterals;

namespace tarn::analytics {

namespace {

/// The savepoint's statements say nothing when they fail: the statement behind them fails as well, and does.
bool runInSilence(const QString& statement)
{
    return QSqlQuery().exec(statement);
}

} // namespace

/// To be called before each look-up: its failure must not spoil the hits around it. Once a batch is stored it
/// runs behind a savepoint, which is set once for all look-ups between two batches. The savepoint is released
/// before anything is written, so that rolling back to it costs nothing but the failed look-up. Before the
/// first batch there is nothing to lose: takeBack() begins the transaction anew.
void HitTransaction::guard()
{
    if (m_written && !m_guarded)
        m_guarded = runInSilence(u"SAVEPOINT look_up"_s);
}

/// Makes the transaction usable again after a look-up that has failed; else it is spoilt.
void HitTransaction::takeBack()
{
    const bool usable =
        m_guarded ? runInSilence(u"ROLLBACK TO SAVEPOINT look_up"_s) : !m_written && m_transaction.restart();
    if (!usable)
        m_transaction.spoil();
}

void HitTransaction::askAhead(const QList<LookUp>& lookUps)
{
    m_sessions.clear();
    m_countries.clear();
    // One alone waits once either way.
    if (lookUps.size() < 2 || m_transaction.isSpoilt())
        return;
    QList<db::Question> questions;
    questions.reserve(lookUps.size());
    for (const LookUp& lookUp : lookUps) {
        if (!lookUp.ip) {
            questions.append({kNextSessionQuery, {}});
        } else {
            questions.append({kCountryQuery, countryValues(*lookUp.ip)});
        }
    }
    guard();
    const std::optional<QList<db::Answer>> answers = db::askAll(questions);
    if (!answers)
        return;
    if (!answers->constLast().ok) {
        // With the session everything is lost; else the calls for each will say what fails.
        if (!db::session().isOpen())
            db::logFailure(answers->constLast().error);
        takeBack();
        return;
    }
    for (qsizetype i = answers->size() - 1; i >= 0; --i) {
        const db::Answer& answer = answers->at(i);
        if (!lookUps.at(i).ip) {
            m_sessions.append(sessionOf(answer).value_or(0));
        } else {
            m_countries.insert(*lookUps.at(i).ip, answer.value.value_or(QString()));
        }
    }
}

std::optional<qint64> HitTransaction::nextSession()
{
    if (!m_sessions.isEmpty())
        return m_sessions.takeLast();
    guard();
    const db::Answer answer = m_transaction.ask(kNextSessionQuery, {});
    const std::optional<qint64> id = sessionOf(answer);
    if (!id)
        takeBack();
    if (!id && !std::exchange(m_sessionFailed, true))
        db::logFailure(answer.error);
    return id;
}

std::optional<QString> HitTransaction::country(const QString& ip)
{
    if (const auto known = m_countries.constFind(ip); known != m_countries.constEnd())
        return *known;
    guard();
    std::optional<QString> found = countryOf(m_transaction.ask(kCountryQuery, countryValues(ip)));
    if (!found)
        takeBack();
    return found;
}

bool HitTransaction::insert(qsizetype rows, const db::Values& values)
{
    if (m_guarded)
        m_guarded = !runInSilence(u"RELEASE SAVEPOINT look_up"_s);
    static const QString fullBatch = hitInsertStatement(kRowsPerInsert);
    const db::Answer answer =
        m_transaction.ask(rows == kRowsPerInsert ? fullBatch : hitInsertStatement(rows), values);
    m_written = true;
    if (answer.ok)
        return true;
    db::logFailure(answer.error);
    m_transaction.spoil();
    return false;
}

std::optional<QString> countryOf(const db::Answer& answer)
{
    if (answer.ok)
        return answer.value.value_or(QString());
    db::logFailure(answer.error);
    return std::nullopt;
}

db::Values countryValues(const QString& ip)
{
    const QString text = db::storable(ip);
    db::Values values;
    values.addText(text);
    values.addText(text);
    return values;
}

std::optional<qint64> sessionOf(const db::Answer& answer)
{
    return answer.ok && answer.value ? std::optional(answer.value->toLongLong()) : std::nullopt;
}

QString hitInsertStatement(qsizetype rows)
{
    const auto group = u"(?, ?, ?, ?, ?, ?, ?, CAST(? AS inet), ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)"_s;
    return kHitInsertion + u"VALUES "_s + QStringList(rows, group).join(u", "_s);
}

} // namespace tarn::analytics
