#include "collect/Timetable.h"

#include <QRegularExpression>
#include <QSettings>
#include <QStringList>
#include <QTemporaryDir>
#include <QTest>

using namespace Qt::Literals::StringLiterals;
using namespace tarn;
using std::chrono::milliseconds;

namespace {

bool always()
{
    return true;
}

} // namespace

class tst_Timetable : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init() { QTest::failOnWarning(QRegularExpression(u".?"_s)); }

    void periods_data()
    {
        QTest::addColumn<QString>("seconds"); // as in the settings; empty: not there
        QTest::addColumn<QString>("minutes");
        QTest::addColumn<qint64>("samples"); // milliseconds
        QTest::addColumn<qint64>("accounts");
        const auto row = [](const char* name, const QString& seconds, const QString& minutes, qint64 samples,
                            qint64 accounts) {
            QTest::newRow(name) << seconds << minutes << samples << accounts;
        };
        row("defaults", {}, {}, 30'000, 900'000);
        row("set", u"5"_s, u"2"_s, 5'000, 120'000);
        row("zero", u"0"_s, u"0"_s, 0, 0);
        row("no-number", u"soon"_s, u"15m"_s, 0, 0);
        row("negative", u"-5"_s, u"-2"_s, -5'000, -120'000);
        row("longest", u"2147483"_s, u"35791"_s, 2'147'483'000, 2'147'460'000);
        row("longest-plus-one", u"2147484"_s, u"35792"_s, 2'147'483'647, 2'147'483'647);
        row("longest-number", u"2147483647"_s, u"2147483647"_s, 2'147'483'647, 2'147'483'647);
    }
    void periods()
    {
        QFETCH(const QString, seconds);
        QFETCH(const QString, minutes);
        const QTemporaryDir folder;
        QSettings settings(folder.filePath(u"tarnhold.ini"_s), QSettings::IniFormat);
        if (!seconds.isEmpty())
            settings.setValue(u"collect/interval_seconds"_s, seconds);
        if (!minutes.isEmpty())
            settings.setValue(u"hosting/usage_minutes"_s, minutes);
        const Periods periods = periodsFrom(settings);
        QTEST(static_cast<qint64>(periods.samples.count()), "samples");
        QTEST(static_cast<qint64>(periods.accounts.count()), "accounts");
        QCOMPARE(periods.logs.count(), 2'000);
        QCOMPARE(periods.maintenance.count(), 30'000);
    }

    void entriesStartInTheirOrder()
    {
        QStringList done;
        const auto entry = [&done](const char* name) {
            const QString text = QString::fromLatin1(name);
            return Timetable::Entry{
                .name = name,
                .period = milliseconds(0),
                .prepare = [&done, text] { return done.append(u"prepare "_s + text), true; },
                .job = [&done, text] { done.append(text); }};
        };
        Timetable timetable({entry("a"), entry("b")}, always);
        QVERIFY(timetable.start());
        QCOMPARE(done, QStringList({u"prepare a"_s, u"a"_s, u"prepare b"_s, u"b"_s}));
        QTRY_VERIFY(done.count(u"a"_s) > 2 && done.count(u"b"_s) > 2);
        QCOMPARE(done.filter(u"prepare"_s).size(), 2);
    }

    void anEntryThatCannotBePreparedEndsTheStart()
    {
        QStringList done;
        Timetable timetable(
            {
                {"a", milliseconds(0), {},                   [&done] { done.append(u"a"_s); }},
                {"b", milliseconds(0), [] { return false; }, [&done] { done.append(u"b"_s); }},
                {"c", milliseconds(0), {},                   [&done] { done.append(u"c"_s); }}
        },
            always);
        QVERIFY(!timetable.start());
        QTRY_VERIFY(done.size() > 3);
        QCOMPARE(done.count(u"a"_s), done.size());
    }

    void runsAreLeftOutWhileNotReady()
    {
        int asked = 0;
        int runs = 0;
        bool isReady = false;
        Timetable timetable(
            {
                {"a", milliseconds(0), {}, [&runs] { ++runs; }}
        },
            [&asked, &isReady] { return ++asked, isReady; });
        QVERIFY(timetable.start());
        QCOMPARE(asked, 0); // the first run is made in any case
        QTRY_VERIFY(asked > 3);
        QCOMPARE(runs, 1);
        isReady = true;
        QTRY_VERIFY(runs > 3);
    }

    void theTimerRunsInTheWaitOfTheFirstRun()
    {
        QStringList done;
        bool isSecondInTime = false;
        Timetable timetable(
            {
                {"a",
                 milliseconds(0),
                 {},
                 [&done,                                 &isSecondInTime] {
                     done.append(u"a"_s);
                     if (done.size() == 1)
                         isSecondInTime = QTest::qWaitFor([&done] { return done.size() > 1; }, 10'000);
                 }},
                {"b",   milliseconds(0),           {}, [&done] { done.append(u"b"_s); }}
        },
            always);
        QVERIFY(timetable.start());
        QVERIFY(isSecondInTime);
        QVERIFY2(done.indexOf(u"b"_s) >= 2, qPrintable(done.join(u' ')));
    }
};

QTEST_GUILESS_MAIN(tst_Timetable)
#include "tst_Timetable.moc"
