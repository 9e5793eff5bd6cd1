#include "collect/Timetable.h"

#include "common/Settings.h"

#include <QString>
#include <QTimer>

#include <algorithm>
#include <limits>
#include <utility>

namespace tarn {

namespace {

using std::chrono::milliseconds;
using std::chrono::minutes;
using std::chrono::seconds;

constexpr milliseconds kLongest(std::numeric_limits<int>::max());

template <typename Unit>
milliseconds period(const QSettings& settings, const Setting& setting)
{
    return std::min(milliseconds(Unit(settingValue(settings, setting).toInt())), kLongest);
}

} // namespace

Periods periodsFrom(const QSettings& settings)
{
    return {
        .samples = period<seconds>(settings, settingOf(kTimerSettings, "collect/interval_seconds")),
        .logs = seconds(2),
        .accounts = period<minutes>(settings, settingOf(kTimerSettings, "hosting/usage_minutes")),
        .maintenance = seconds(30),
    };
}

Timetable::Timetable(QList<Entry> entries, std::function<bool()> isReady)
    : m_entries(std::move(entries))
    , m_isReady(std::move(isReady))
{
}

bool Timetable::start()
{
    for (const Entry& entry : m_entries) {
        if (entry.prepare && !entry.prepare())
            return false;
        auto* timer = new QTimer(&m_timers);
        timer->setObjectName(QString::fromLatin1(entry.name));
        QObject::connect(timer, &QTimer::timeout, timer, [this, &entry] {
            if (m_isReady())
                entry.job();
        });
        timer->start(entry.period);
        entry.job();
    }
    return true;
}

} // namespace tarn
