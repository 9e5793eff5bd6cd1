#include "collect/Alerts.h"

#include <QJsonObject>
#include <QTest>

#include <limits>

using namespace Qt::Literals::StringLiterals;
using namespace tarn;

Q_DECLARE_METATYPE(tarn::Condition)

namespace {

constexpr int kMost = std::numeric_limits<int>::max();

/// What each pass of @p passes ('b' bad, 'g' good) calls for: 'O', 'R', 'C', or '.' for nothing.
QString actionsOf(const QString& passes, int n)
{
    QString actions;
    int length = 0;
    for (const QChar pass : passes) {
        const Streak streak = nextStreak(length, pass == u'b', n);
        length = streak.length;
        switch (streak.action) {
        case AlertAction::None:
            actions += u'.';
            break;
        case AlertAction::Open:
            actions += u'O';
            break;
        case AlertAction::Refresh:
            actions += u'R';
            break;
        case AlertAction::Close:
            actions += u'C';
            break;
        }
    }
    return actions;
}

/// A condition in one text: "kind|subject|text" and "|bad" when it is.
QString told(const Condition& condition)
{
    return condition.kind + u'|' + condition.subject + u'|' + condition.text
           + (condition.bad ? u"|bad"_s : u""_s);
}

constexpr qint64 kMb = 1'048'576;

} // namespace

class tst_Alerts : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void streak_data()
    {
        QTest::addColumn<int>("length");
        QTest::addColumn<bool>("bad");
        QTest::addColumn<int>("n");
        QTest::addColumn<int>("next");
        QTest::addColumn<AlertAction>("action");
        QTest::newRow("first-bad") << 0 << true << 3 << 1 << AlertAction::None;
        QTest::newRow("second-bad") << 1 << true << 3 << 2 << AlertAction::None;
        QTest::newRow("third-bad") << 2 << true << 3 << 3 << AlertAction::Open;
        QTest::newRow("fourth-bad") << 3 << true << 3 << 4 << AlertAction::Refresh;
        QTest::newRow("hundredth-bad") << 99 << true << 3 << 100 << AlertAction::Refresh;
        QTest::newRow("bad-after-one-good") << -1 << true << 3 << 1 << AlertAction::None;
        QTest::newRow("bad-after-many-good") << -100 << true << 3 << 1 << AlertAction::None;
        QTest::newRow("first-good") << 0 << false << 3 << -1 << AlertAction::None;
        QTest::newRow("second-good") << -1 << false << 3 << -2 << AlertAction::None;
        QTest::newRow("third-good") << -2 << false << 3 << -3 << AlertAction::Close;
        QTest::newRow("fourth-good") << -3 << false << 3 << -4 << AlertAction::None;
        QTest::newRow("good-after-one-bad") << 1 << false << 3 << -1 << AlertAction::None;
        QTest::newRow("good-after-many-bad") << 100 << false << 3 << -1 << AlertAction::None;
        QTest::newRow("one-bad-is-enough") << 0 << true << 1 << 1 << AlertAction::Open;
        QTest::newRow("one-bad-after-good") << -5 << true << 1 << 1 << AlertAction::Open;
        QTest::newRow("bad-again-of-one") << 1 << true << 1 << 2 << AlertAction::Refresh;
        QTest::newRow("one-good-is-enough") << 0 << false << 1 << -1 << AlertAction::Close;
        QTest::newRow("one-good-after-bad") << 5 << false << 1 << -1 << AlertAction::Close;
        QTest::newRow("good-again-of-one") << -1 << false << 1 << -2 << AlertAction::None;
        QTest::newRow("longest-bad") << kMost << true << 3 << kMost << AlertAction::Refresh;
        QTest::newRow("longest-bad-minus-one") << kMost - 1 << true << 3 << kMost << AlertAction::Refresh;
        QTest::newRow("longest-good") << -kMost << false << 3 << -kMost << AlertAction::None;
        QTest::newRow("longest-good-minus-one") << 1 - kMost << false << 3 << -kMost << AlertAction::None;
        QTest::newRow("good-after-longest-bad") << kMost << false << 3 << -1 << AlertAction::None;
        QTest::newRow("bad-after-longest-good") << -kMost << true << 3 << 1 << AlertAction::None;
    }
    void streak()
    {
        QFETCH(const int, length);
        QFETCH(const bool, bad);
        QFETCH(const int, n);
        QTEST(nextStreak(length, bad, n).length, "next");
        QTEST(nextStreak(length, bad, n).action, "action");
    }

    void passes_data()
    {
        QTest::addColumn<QString>("passes");
        QTest::addColumn<int>("n");
        QTest::addColumn<QString>("actions");
        QTest::newRow("opens-and-lasts") << u"bbbbb"_s << 3 << u"..ORR"_s;
        QTest::newRow("good-pass-restarts") << u"bbgbbb"_s << 3 << u".....O"_s;
        QTest::newRow("bad-pass-restarts-clearing") << u"bbbggbggg"_s << 3 << u"..O.....C"_s;
        QTest::newRow("opens-clears-opens") << u"bbbgggbbb"_s << 3 << u"..O..C..O"_s;
        QTest::newRow("no-refresh-until-sure-again") << u"bbbbgbbbb"_s << 3 << u"..OR...OR"_s;
        QTest::newRow("flapping") << u"bgbgbgbg"_s << 3 << u"........"_s;
        QTest::newRow("good-from-the-start") << u"ggggg"_s << 3 << u"..C.."_s;
        QTest::newRow("each-pass-counts") << u"bbggb"_s << 1 << u"ORC.O"_s;
        QTest::newRow("two") << u"bbbgg"_s << 2 << u".OR.C"_s;
    }
    void passes()
    {
        QFETCH(const QString, passes);
        QFETCH(const int, n);
        QTEST(actionsOf(passes, n), "actions");
    }

    void conditions_data()
    {
        QTest::addColumn<Condition>("condition");
        QTest::addColumn<QString>("expected");

        QTest::newRow("memory-below") << memoryCondition(1000, 101, 90) << u"memory|RAM|Memory 90% used"_s;
        QTest::newRow("memory-at") << memoryCondition(1000, 100, 90) << u"memory|RAM|Memory 90% used|bad"_s;
        QTest::newRow("memory-half-up") << memoryCondition(1000, 75, 99) << u"memory|RAM|Memory 93% used"_s;
        QTest::newRow("memory-half-down") << memoryCondition(1000, 76, 99) << u"memory|RAM|Memory 92% used"_s;
        QTest::newRow("memory-fraction-threshold")
            << memoryCondition(1000, 76, 92.4) << u"memory|RAM|Memory 92% used|bad"_s;
        QTest::newRow("memory-fraction-threshold-below")
            << memoryCondition(1000, 76, 92.41) << u"memory|RAM|Memory 92% used"_s;
        QTest::newRow("memory-total-0") << memoryCondition(0, 0, 90) << u"memory|RAM|Memory 0% used"_s;
        QTest::newRow("memory-total-0-threshold-0")
            << memoryCondition(0, 0, 0) << u"memory|RAM|Memory 0% used|bad"_s;
        QTest::newRow("memory-more-available")
            << memoryCondition(1000, 1001, 90) << u"memory|RAM|Memory 0% used"_s;
        QTest::newRow("memory-huge") << memoryCondition(std::numeric_limits<qint64>::max(),
                                                        std::numeric_limits<qint64>::min(), 90)
                                     << u"memory|RAM|Memory 200% used|bad"_s;
        QTest::newRow("memory-no-threshold")
            << memoryCondition(1000, 0, std::numeric_limits<double>::quiet_NaN())
            << u"memory|RAM|Memory 100% used"_s;

        QTest::newRow("apache-below") << apacheCondition(359, 400, 90)
                                      << u"apache|workers|Apache is using 359 of 400 workers; new visitors "
                                         "wait in line"_s;
        QTest::newRow("apache-at") << apacheCondition(360, 400, 90)
                                   << u"apache|workers|Apache is using 360 of 400 workers; new visitors wait "
                                      "in line|bad"_s;
        QTest::newRow("apache-huge") << apacheCondition(kMost, kMost, 90)
                                     << u"apache|workers|Apache is using 2147483647 of 2147483647 workers; "
                                        "new visitors wait in line|bad"_s;

        QTest::newRow("load-rounded-up-below")
            << loadCondition(7.96, 4, 2) << u"load|CPU|Load 8.0 on 4 CPUs"_s;
        QTest::newRow("load-at") << loadCondition(8, 4, 2) << u"load|CPU|Load 8.0 on 4 CPUs|bad"_s;
        QTest::newRow("load-one-decimal") << loadCondition(12.34, 1, 20) << u"load|CPU|Load 12.3 on 1 CPUs"_s;
        QTest::newRow("load-fraction-threshold")
            << loadCondition(0.5, 1, 0.5) << u"load|CPU|Load 0.5 on 1 CPUs|bad"_s;
        QTest::newRow("load-huge") << loadCondition(1234567.89, 64, 2)
                                   << u"load|CPU|Load 1234567.9 on 64 CPUs|bad"_s;

        QTest::newRow("temperature-below")
            << temperatureCondition(84.999, 85) << u"temperature|CPU|CPU at 85 °C"_s;
        QTest::newRow("temperature-at")
            << temperatureCondition(85, 85) << u"temperature|CPU|CPU at 85 °C|bad"_s;
        QTest::newRow("temperature-half")
            << temperatureCondition(70.5, 85) << u"temperature|CPU|CPU at 71 °C"_s;

        const auto disk = [](const QString& mount, qint64 total, qint64 avail) {
            return diskCondition(
                {
                    {u"mount"_s, mount},
                    {u"total"_s, total},
                    {u"avail"_s, avail}
            },
                90);
        };
        QTest::newRow("disk-below") << disk(u"/"_s, 1000, 101) << u"disk|/|Disk / is 90% full"_s;
        QTest::newRow("disk-at") << disk(u"/var"_s, 1000, 100) << u"disk|/var|Disk /var is 90% full|bad"_s;
        QTest::newRow("disk-total-0") << disk(u"/x"_s, 0, 0) << u"disk|/x|Disk /x is 0% full"_s;
        QTest::newRow("disk-total-negative") << disk(u"/x"_s, -1, -100) << u"disk|/x|Disk /x is 0% full"_s;
        QTest::newRow("disk-placeholder")
            << disk(u"/a%1/%2"_s, 100, 0) << u"disk|/a%1/%2|Disk /a%1/%2 is 100% full|bad"_s;
        QTest::newRow("disk-untold") << diskCondition({}, 90) << u"disk||Disk  is 0% full"_s;

        const auto service = [](const QJsonObject& told) { return serviceCondition(told); };
        QTest::newRow("service-active") << service({
            {u"name"_s,   u"apache2"_s},
            {u"loaded"_s, true        },
            {u"active"_s, true        },
            {u"sub"_s,    u"running"_s}
        })
                                        << u"service|apache2|Service apache2 is not running (running)"_s;
        QTest::newRow("service-failed") << service({
            {u"name"_s,   u"apache2"_s},
            {u"loaded"_s, true        },
            {u"active"_s, false       },
            {u"sub"_s,    u"failed"_s }
        })
                                        << u"service|apache2|Service apache2 is not running (failed)|bad"_s;
        QTest::newRow("service-unknown") << service({
            {u"name"_s,   u"nosuch"_s},
            {u"loaded"_s, false      },
            {u"active"_s, false      },
            {u"sub"_s,    u"dead"_s  }
        })
                                         << u"service|nosuch|Service nosuch is not installed|bad"_s;
        QTest::newRow("service-not-loaded-yet-active") << service({
            {u"name"_s,   u"gone"_s},
            {u"loaded"_s, false    },
            {u"active"_s, true     }
        })
                                                       << u"service|gone|Service gone is not installed|bad"_s;
        QTest::newRow("service-load-state-untold") << service({
            {u"name"_s,   u"odd"_s},
            {u"active"_s, true    }
        })
                                                   << u"service|odd|Service odd is not installed|bad"_s;
        QTest::newRow("service-active-state-untold") << service({
            {u"name"_s,   u"odd"_s},
            {u"loaded"_s, true    }
        })
                                                     << u"service|odd|Service odd is not running ()|bad"_s;
        QTest::newRow("service-placeholder") << service({
            {u"name"_s,   u"a@%2"_s},
            {u"loaded"_s, true     },
            {u"sub"_s,    u"dead"_s}
        })
                                             << u"service|a@%2|Service a@%2 is not running (dead)|bad"_s;

        const auto quota = [](qint64 bytes, qint64 limitMb) {
            return quotaCondition(u"alice"_s, u"a.example"_s, bytes, limitMb);
        };
        QTest::newRow("quota-at") << quota(500 * kMb, 500)
                                  << u"quota|alice|a.example uses 500 MB of its 500 MB disk limit"_s;
        QTest::newRow("quota-one-byte-over")
            << quota(500 * kMb + 1, 500)
            << u"quota|alice|a.example uses 500 MB of its 500 MB disk limit|bad"_s;
        QTest::newRow("quota-half") << quota(3 * kMb / 2, 1)
                                    << u"quota|alice|a.example uses 2 MB of its 1 MB disk limit|bad"_s;
        QTest::newRow("quota-none") << quota(500 * kMb, 0)
                                    << u"quota|alice|a.example uses 500 MB of its 0 MB disk limit"_s;
        QTest::newRow("quota-negative")
            << quota(500 * kMb, -1) << u"quota|alice|a.example uses 500 MB of its -1 MB disk limit"_s;
        QTest::newRow("quota-huge") << quota(
            std::numeric_limits<qint64>::max(),
            1) << u"quota|alice|a.example uses 8796093022208 MB of its 1 MB disk limit|bad"_s;
        QTest::newRow("quota-placeholder") << quotaCondition(u"bob"_s, u"%3.%2.example"_s, kMb, 7)
                                           << u"quota|bob|%3.%2.example uses 1 MB of its 7 MB disk limit"_s;

        const auto database = [](qint64 bytes, qint64 limitMb) {
            return databaseQuotaCondition(u"alice"_s, u"a.example"_s, bytes, limitMb);
        };
        const auto readOnly =
            u"dbquota|alice|a.example's database is %1 MB, over its %2 MB limit; it is read-only "
            "until it shrinks or the limit is raised"_s;
        QTest::newRow("database-at") << database(1536 * kMb, 1536) << readOnly.arg(1536).arg(1536);
        QTest::newRow("database-over-by-less-than-shown")
            << database(1'611'032'166, 1536) << readOnly.arg(1536).arg(1536) + u"|bad"_s; // 1536.4 MB
        QTest::newRow("database-none") << database(0, 10) << readOnly.arg(0).arg(10);
        QTest::newRow("database-no-limit") << database(1536 * kMb, 0) << readOnly.arg(1536).arg(0);
    }
    void conditions()
    {
        QFETCH(const Condition, condition);
        QTEST(told(condition), "expected");
    }
};

QTEST_GUILESS_MAIN(tst_Alerts)
#include "tst_Alerts.moc"
