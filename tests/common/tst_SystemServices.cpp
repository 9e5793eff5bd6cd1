#include "common/System.h"
#include "common/SystemTest.h"
#include "support/CpuTime.h"
#include "support/HostileTexts.h"
#include "support/Zone.h"

#include <QDir>
#include <QElapsedTimer>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>
#include <QSettings>
#include <QTemporaryDir>
#include <QTest>

#include <cerrno>
#include <csignal>
#include <memory>

#include <unistd.h>

using namespace Qt::Literals::StringLiterals;
using namespace tarn;
using namespace tarn::test;

namespace {

/// The time that a systemctl has which hangs, and what a busy machine may add.
constexpr int kAnswerMs = 5'000;
constexpr int kSlackMs = 3'000;

QString dataFile(const QString& name)
{
    return QStringLiteral(TARN_TEST_DATA "/systemctl/") + name;
}

QStringList namesOf(const QJsonArray& services)
{
    QStringList names;
    for (const auto& service : services)
        names.append(service.toObject()[u"name"_s].toString());
    return names;
}

QString text(const QJsonArray& array)
{
    return QString::fromUtf8(QJsonDocument(array).toJson(QJsonDocument::Compact));
}

} // namespace

/// The services of the host, from the names in the settings to the state of each.
class tst_SystemServices : public QObject
{
    Q_OBJECT

private:
    /// A program systemctl that comes first on the PATH: a shell script that does @p body.
    void makeSystemctl(const QByteArray& body)
    {
        QFile file(m_folder->filePath(u"systemctl"_s));
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write("#!/bin/sh\necho $$ >\"$0.pid\"\n" + body + '\n');
        file.close();
        file.setPermissions(QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    }

    /// What the script has written to its file with this ending.
    QByteArray scriptFile(const QString& ending) const
    {
        return contentsOf(m_folder->filePath(u"systemctl."_s + ending));
    }

    /// True when the process of the number in such a file is no more, not even as a zombie.
    bool isGone(const QString& ending) const
    {
        const int id = scriptFile(ending).trimmed().toInt();
        return id > 0 && ::kill(id, 0) == -1 && errno == ESRCH;
    }

    static qsizetype openFiles()
    {
        return QDir(u"/proc/self/fd"_s)
            .entryList(QDir::NoDotAndDotDot | QDir::AllEntries | QDir::System)
            .size();
    }

    std::unique_ptr<QTemporaryDir> m_folder;
    QByteArray m_path;

private Q_SLOTS:
    void init()
    {
        QTest::failOnWarning(QRegularExpression(u".?"_s));
        m_folder = std::make_unique<QTemporaryDir>();
        m_path = qgetenv("PATH");
        qputenv("PATH", m_folder->path().toLocal8Bit() + ':' + m_path);
    }
    void cleanup()
    {
        // A child of the script that is meant to outlive it.
        if (const int child = scriptFile(u"child"_s).trimmed().toInt(); child > 0)
            ::kill(child, SIGKILL);
        qputenv("PATH", m_path);
        Zone::set("UTC");
    }

    void monitoredServices_data()
    {
        QTest::addColumn<QByteArray>("ini");
        QTest::addColumn<QStringList>("names");
        const QStringList three{u"apache2"_s, u"postgresql"_s, u"mariadb"_s};
        QTest::newRow("no-file") << QByteArray() << QStringList{u"apache2"_s, u"postgresql"_s};
        QTest::newRow("no-key") << QByteArray("[health]\ndisk_alert_pct=90\n")
                                << QStringList{u"apache2"_s, u"postgresql"_s};
        QTest::newRow("list") << QByteArray("[health]\nservices=apache2,postgresql,mariadb\n") << three;
        QTest::newRow("quoted") << QByteArray("[health]\nservices=\"apache2,postgresql,mariadb\"\n") << three;
        QTest::newRow("stray-blanks-and-empty-piece")
            << QByteArray("[health]\nservices= apache2 , ,postgresql,  mariadb \n") << three;
        QTest::newRow("stray-blanks-and-empty-piece-quoted")
            << QByteArray("[health]\nservices=\" apache2 ,,postgresql,\t mariadb, \"\n") << three;
        QTest::newRow("one") << QByteArray("[health]\nservices=nginx\n") << QStringList{u"nginx"_s};
        QTest::newRow("twice") << QByteArray("[health]\nservices=a,b,a\n")
                               << QStringList{u"a"_s, u"b"_s, u"a"_s};
        QTest::newRow("none") << QByteArray("[health]\nservices=\n") << QStringList();
        QTest::newRow("only-commas") << QByteArray("[health]\nservices=,,\n") << QStringList();
        QTest::newRow("instance") << QByteArray("[health]\nservices=postgresql@15-main.service\n")
                                  << QStringList{u"postgresql@15-main.service"_s};
        QTest::newRow("blank-within") << QByteArray("[health]\nservices=a b\n") << QStringList{u"a b"_s};
        QTest::newRow("each-quoted") << QByteArray("[health]\nservices=\"a\", \"b,c\"\n")
                                     << QStringList{u"a"_s, u"b,c"_s};
    }
    void monitoredServices()
    {
        QFETCH(const QByteArray, ini);
        QFETCH(const QStringList, names);
        QFile file(m_folder->filePath(u"tarnhold.ini"_s));
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write(ini);
        file.close();
        const QSettings settings(file.fileName(), QSettings::IniFormat);
        QCOMPARE(system::monitoredServices(settings), names);
    }

    void realOutput_data()
    {
        QTest::addColumn<QByteArray>("zone");
        QTest::newRow("systemd-252-utc") << QByteArray("UTC");
        QTest::newRow("systemd-247-berlin") << QByteArray("Europe/Berlin");
        QTest::newRow("systemd-249-kolkata") << QByteArray("Asia/Kolkata");
        QTest::newRow("systemd-219-new-york") << QByteArray("America/New_York");
    }
    void realOutput()
    {
        QFETCH(const QByteArray, zone);
        Zone::set(zone);
        const QString name = QString::fromLatin1(QTest::currentDataTag());
        const QByteArray output = contentsOf(dataFile(name + u".txt"_s));
        const QJsonArray expected = QJsonDocument::fromJson(contentsOf(dataFile(name + u".json"_s))).array();
        QVERIFY(!output.isEmpty() && expected.size() >= 3);
        const QStringList names = namesOf(expected);
        QCOMPARE(text(system::parseServices(output, names)), text(expected));

        QByteArray other = output;
        other.replace('\n', "\r\n");
        QCOMPARE(text(system::parseServices(other, names)), text(expected));
        QCOMPARE(text(system::parseServices(output.trimmed(), names)), text(expected));
        QCOMPARE(text(system::parseServices("\n\n" + output + "\n\n \t\n", names)), text(expected));
        other = output;
        other.replace("\n\n", "\n\n\n \n");
        QCOMPARE(text(system::parseServices(other, names)), text(expected));
        other = output;
        other.replace("=", "= ");
        QCOMPARE(text(system::parseServices(other, names)), text(expected));

        // Cut anywhere, it is nonsense only where it is cut.
        for (qsizetype size = 0; size < output.size(); ++size) {
            const QJsonArray part = system::parseServices(output.first(size), names);
            QVERIFY(part.size() <= expected.size());
            for (qsizetype i = 0; i + 1 < part.size(); ++i)
                QCOMPARE(part.at(i), expected.at(i));
        }
    }

    void parsedTexts_data()
    {
        QTest::addColumn<QByteArray>("output");
        QTest::addColumn<QByteArray>("expected");
        const auto row = [](const char* name, const QByteArray& output, const QByteArray& expected) {
            QTest::newRow(name) << output << expected;
        };
        row("empty", "", "[]");
        row("empty-lines", "\n\r\n \n\t\n", "[]");
        row("loaded", "LoadState=loaded\n", "[{\"loaded\":true,\"name\":\"a\"}]");
        row("loaded-other", "LoadState=bad-setting\n", "[{\"loaded\":false,\"name\":\"a\"}]");
        row("loaded-longer", "LoadState=loaded2\n", "[{\"loaded\":false,\"name\":\"a\"}]");
        row("loaded-in-capitals", "LoadState=Loaded\n", "[{\"loaded\":false,\"name\":\"a\"}]");
        row("active", "ActiveState=active\n", "[{\"active\":true,\"name\":\"a\"}]");
        row("inactive", "ActiveState=inactive\n", "[{\"active\":false,\"name\":\"a\"}]");
        row("activating", "ActiveState=activating\n", "[{\"active\":false,\"name\":\"a\"}]");
        row("sub", "SubState=auto-restart\n", "[{\"name\":\"a\",\"sub\":\"auto-restart\"}]");
        row("sub-empty", "SubState=\n", "[{\"name\":\"a\",\"sub\":\"\"}]");
        row("sub-beyond-ascii", "SubState=l\xc3\xa4uft\n", "[{\"name\":\"a\",\"sub\":\"l\xc3\xa4uft\"}]");
        row("sub-not-utf-8", "SubState=\xff\n", "[{\"name\":\"a\",\"sub\":\"\xef\xbf\xbd\"}]");
        row("second-equals-sign", "SubState=a=b\n", "[{\"name\":\"a\",\"sub\":\"a=b\"}]");
        row("no-equals-sign", "SubState\n", "[{\"name\":\"a\",\"sub\":\"\"}]");
        row("no-equals-sign-and-no-value", "LoadState\nActiveState\nMemoryCurrent\nActiveEnterTimestamp\n",
            "[{\"active\":false,\"loaded\":false,\"memory\":0,\"name\":\"a\"}]");
        row("key-in-other-case", "substate=running\n", "[]");
        row("blank-before-the-key", " SubState=running\n", "[]");
        row("only-ignored-keys", "Id=x.service\nFragmentPath=/x\nnonsense\n=\n", "[]");
        row("ignored-block-takes-no-name", "Id=x.service\n\nSubState=s\n",
            "[{\"name\":\"a\",\"sub\":\"s\"}]");
        row("last-of-two-values", "SubState=one\nSubState=two\n", "[{\"name\":\"a\",\"sub\":\"two\"}]");
        row("no-line-feed-at-the-end", "SubState=s\n\nSubState=t",
            "[{\"name\":\"a\",\"sub\":\"s\"},{\"name\":\"b\",\"sub\":\"t\"}]");
        row("more-blocks-than-names", "SubState=s\n\nSubState=t\n\nSubState=u\n\nSubState=v\n",
            "[{\"name\":\"a\",\"sub\":\"s\"},{\"name\":\"b\",\"sub\":\"t\"},"
            "{\"name\":\"\",\"sub\":\"u\"},{\"name\":\"\",\"sub\":\"v\"}]");
        row("memory", "MemoryCurrent=21544960\n", "[{\"memory\":21544960,\"name\":\"a\"}]");
        row("memory-not-set", "MemoryCurrent=[not set]\n", "[{\"memory\":0,\"name\":\"a\"}]");
        row("memory-2^64-1", "MemoryCurrent=18446744073709551615\n", "[{\"memory\":0,\"name\":\"a\"}]");
        row("memory-2^63-1", "MemoryCurrent=9223372036854775807\n",
            "[{\"memory\":9223372036854775807,\"name\":\"a\"}]");
        row("memory-2^63", "MemoryCurrent=9223372036854775808\n", "[{\"memory\":0,\"name\":\"a\"}]");
        row("memory-with-unit", "MemoryCurrent=20.5M\n", "[{\"memory\":0,\"name\":\"a\"}]");
        row("memory-empty", "MemoryCurrent=\n", "[{\"memory\":0,\"name\":\"a\"}]");
        row("html", "<html>\n<p class=\"x\">\n\n</html>\n", "[]");
        row("nul-bytes", QByteArray("SubState=a\0b\n\0\0\n", 16), "[{\"name\":\"a\",\"sub\":\"a\\u0000b\"}]");
    }
    void parsedTexts()
    {
        QFETCH(const QByteArray, output);
        QFETCH(const QByteArray, expected);
        QCOMPARE(text(system::parseServices(output, {u"a"_s, u"b"_s})), QString::fromUtf8(expected));
    }

    void hugeOutput()
    {
        const QByteArray value(20'000'000, 'x');
        const QJsonArray one = system::parseServices("SubState=" + value, {u"a"_s});
        QCOMPARE(one.at(0)[u"sub"_s].toString().size(), value.size());
        QCOMPARE(system::parseServices(value, {u"a"_s}), QJsonArray());
    }

    void blocksThatNobodyAskedFor()
    {
        const auto count = [](qsizetype blocks) {
            return system::parseServices(QByteArray("SubState=s\n\n").repeated(blocks).trimmed(), {u"a"_s})
                .size();
        };
        QCOMPARE(count(1 + system::kMaxUnaskedServices), 1 + system::kMaxUnaskedServices);
        QCOMPARE(count(2 + system::kMaxUnaskedServices), 1 + system::kMaxUnaskedServices);
        QCOMPARE(count(100'000), 1 + system::kMaxUnaskedServices);
    }

    void longestNumber()
    {
        const QByteArray zeros(62, '0');
        QCOMPARE(text(system::parseServices("MemoryCurrent=" + zeros + "17", {u"a"_s})),
                 u"[{\"memory\":17,\"name\":\"a\"}]"_s);
        QCOMPARE(text(system::parseServices("MemoryCurrent=0" + zeros + "17", {u"a"_s})),
                 u"[{\"memory\":0,\"name\":\"a\"}]"_s);
    }

    void hostileOutputCostsLittleMoreThanPlain_data()
    {
        QTest::addColumn<QByteArray>("key");
        for (const char* key : {"", "LoadState=", "ActiveState=", "ActiveEnterTimestamp=", "MemoryCurrent="})
            QTest::newRow(*key ? key : "no-key") << QByteArray(key);
    }

    /// By the ratio within one run, in processor time. A time of thousands of words cost 80 times what one of
    /// its length does.
    void hostileOutputCostsLittleMoreThanPlain()
    {
        constexpr qsizetype kBytes = 65'536;
        QFETCH(const QByteArray, key);
        const auto secondsFor = [](const QByteArray& before, const QByteArray& unit) {
            const QByteArray output = before + tarn::tests::textOf(unit, kBytes);
            return tarn::tests::leastSeconds(15, [&] { system::parseServices(output, {u"a"_s}); });
        };
        const double plain = secondsFor("SubState=", "x");
        for (const tarn::tests::Shape& shape : tarn::tests::hostileShapes()) {
            const double hostile = secondsFor(key, shape.unit);
            QVERIFY2(hostile < tarn::tests::kMostTimes * plain,
                     qPrintable(u"%1: %2 us, %3 us"_s.arg(QLatin1StringView(shape.name))
                                    .arg(hostile * 1e6)
                                    .arg(plain * 1e6)));
        }
    }

    void since_data()
    {
        QTest::addColumn<QByteArray>("zone");
        QTest::addColumn<QByteArray>("value");
        QTest::addColumn<qint64>("seconds"); // -1: not told
        const auto row = [](const char* name, const char* zone, const char* value, qint64 seconds) {
            QTest::newRow(name) << QByteArray(zone) << QByteArray(value) << seconds;
        };
        row("utc", "UTC", "Sat 2024-10-12 13:55:36 UTC", 1'728'741'336);
        row("east", "Asia/Tokyo", "Sat 2024-10-12 22:55:36 JST", 1'728'741'336);
        row("west", "America/New_York", "Sat 2024-10-12 09:55:36 EDT", 1'728'741'336);
        row("quarter-of-an-hour", "Asia/Kathmandu", "Sat 2024-10-12 19:40:36 +0545", 1'728'741'336);
        row("winter", "Europe/Berlin", "Mon 2024-01-01 01:00:00 CET", 1'704'067'200);
        row("summer", "Europe/Berlin", "Mon 2024-07-01 02:00:00 CEST", 1'719'792'000);
        row("before-the-gap", "Europe/Berlin", "Sun 2024-03-31 01:59:59 CET", 1'711'846'799);
        row("after-the-gap", "Europe/Berlin", "Sun 2024-03-31 03:00:00 CEST", 1'711'846'800);
        row("zone-is-passed-over", "UTC", "Sat 2024-10-12 13:55:36 PST", 1'728'741'336);
        row("no-zone", "UTC", "Sat 2024-10-12 13:55:36", 1'728'741'336);
        row("weekday-of-another-language", "UTC",
            "s\xc3\xa1"
            "b 2024-10-12 13:55:36 UTC",
            1'728'741'336);
        row("weekday-of-another-day", "UTC", "Mon 2024-10-12 13:55:36 UTC", 1'728'741'336);
        row("blanks-around", "UTC", "  Sat 2024-10-12 13:55:36 UTC \r", 1'728'741'336);
        row("leap-day", "UTC", "Thu 2024-02-29 00:00:00 UTC", 1'709'164'800);
        row("epoch", "UTC", "Thu 1970-01-01 00:00:00 UTC", 0);
        row("empty", "UTC", "", -1);
        row("only-blanks", "UTC", "   ", -1);
        row("not-available", "UTC", "n/a", -1);
        row("no-weekday", "UTC", "2024-10-12 13:55:36 UTC", -1);
        row("two-blanks", "UTC", "Sat  2024-10-12 13:55:36 UTC", -1);
        row("no-leap-day", "UTC", "Wed 2023-02-29 00:00:00 UTC", -1);
        row("hour-24", "UTC", "Sat 2024-10-12 24:00:00 UTC", -1);
        row("with-microseconds", "UTC", "Sat 2024-10-12 13:55:36.123456 UTC", -1);
        row("seconds-since-the-epoch", "UTC", "@1728741336", -1);
        row("cut", "UTC", "Sat 2024-10-12 13:5", -1);
        row("date-only", "UTC", "Sat 2024-10-12", -1);
        row("words", "UTC", "one two three four", -1);
    }
    void since()
    {
        QFETCH(const QByteArray, zone);
        QFETCH(const QByteArray, value);
        QFETCH(const qint64, seconds);
        Zone::set(zone);
        const QJsonObject service =
            system::parseServices("SubState=s\nActiveEnterTimestamp=" + value, {u"a"_s}).at(0).toObject();
        QCOMPARE(service[u"since"_s].toInteger(-1), seconds);
        QCOMPARE(service.contains(u"since"_s), seconds != -1);
    }

    void argumentsToTheLetter()
    {
        makeSystemctl("for argument in \"$@\"; do echo \"$argument\"; done >\"$0.arguments\"");
        const QStringList names{u"apache2"_s,   u"a b"_s,          u"*"_s,
                                u"$HOME;'\""_s, u"b\u00f6rge@1"_s, u"apache2"_s};
        QCOMPARE(system::serviceStatus(names), QJsonArray());
        QCOMPARE(QString::fromUtf8(scriptFile(u"arguments"_s)),
                 (QStringList{u"show"_s, u"--no-pager"_s, u"-p"_s,
                              u"Id,LoadState,ActiveState,SubState,ActiveEnterTimestamp,MemoryCurrent"_s}
                  + names)
                         .join(u'\n')
                     + u'\n');
    }

    void noNamesStartNothing()
    {
        makeSystemctl("echo SubState=running");
        QCOMPARE(system::serviceStatus({}), QJsonArray());
        QCOMPARE(scriptFile(u"pid"_s), QByteArray());
    }

    void answerOfSystemctl()
    {
        Zone::set("Asia/Kolkata");
        const QString name = u"systemd-249-kolkata"_s;
        makeSystemctl("echo \"$TZ\" >\"$0.zone\"; cat " + dataFile(name + u".txt"_s).toLocal8Bit());
        const QJsonArray expected = QJsonDocument::fromJson(contentsOf(dataFile(name + u".json"_s))).array();
        const qsizetype files = openFiles();
        for (int i = 0; i < 5; ++i)
            QCOMPARE(text(system::serviceStatus(namesOf(expected))), text(expected));
        QVERIFY(isGone(u"pid"_s));
        QCOMPARE(openFiles(), files);
        // Its times are in the zone in which they are read.
        QCOMPARE(scriptFile(u"zone"_s), QByteArray("Asia/Kolkata\n"));
    }

    void failingSystemctl_data()
    {
        QTest::addColumn<QByteArray>("body");
        QTest::addColumn<QByteArray>("expected");
        const QByteArray one = "[{\"name\":\"a\",\"sub\":\"dead\"}]";
        QTest::newRow("no-system-bus")
            << QByteArray("echo 'Failed to connect to bus: Host is down' >&2; exit 1") << QByteArray("[]");
        QTest::newRow("failure-after-output") << QByteArray("echo SubState=dead; exit 4") << one;
        QTest::newRow("killed-after-output") << QByteArray("echo SubState=dead; kill -9 $$") << one;
        QTest::newRow("cut-within-a-line") << QByteArray("printf SubState=dead; kill -9 $$") << one;
        QTest::newRow("no-output") << QByteArray("exit 0") << QByteArray("[]");
        QTest::newRow("only-errors") << QByteArray("echo SubState=dead >&2") << QByteArray("[]");
        QTest::newRow("much-among-the-errors")
            << QByteArray("head -c 5000000 /dev/zero >&2; echo SubState=dead") << one;
        QTest::newRow("reads-its-input") << QByteArray("cat >/dev/null; echo SubState=dead") << one;
        QTest::newRow("in-pieces") << QByteArray("printf Sub; sleep 0.2; printf State=; sleep 0.2; echo dead")
                                   << one;
        QTest::newRow("leaves-a-child-with-the-pipe")
            << QByteArray("echo SubState=dead; sleep 60 & echo $! >\"$0.child\"") << one;
    }
    void failingSystemctl()
    {
        QFETCH(const QByteArray, body);
        QFETCH(const QByteArray, expected);
        makeSystemctl("readlink /proc/$$/fd/2 >\"$0.errors\"\n" + body);
        QElapsedTimer timer;
        timer.start();
        QCOMPARE(text(system::serviceStatus({u"a"_s, u"b"_s})).toUtf8(), expected);
        QVERIFY2(timer.elapsed() < kSlackMs, "it waited for more than the program");
        QVERIFY(isGone(u"pid"_s));
        // What it says there would be among the lines of the log.
        QCOMPARE(scriptFile(u"errors"_s), QByteArray("/dev/null\n"));
    }

    void noSystemctl()
    {
        qputenv("PATH", m_folder->path().toLocal8Bit());
        QCOMPARE(system::serviceStatus({u"a"_s}), QJsonArray());
        makeSystemctl("echo SubState=dead");
        QFile::setPermissions(m_folder->filePath(u"systemctl"_s), QFile::ReadOwner);
        QCOMPARE(system::serviceStatus({u"a"_s}), QJsonArray());
        QVERIFY(QFile::remove(m_folder->filePath(u"systemctl"_s)));
        QVERIFY(QDir(m_folder->path()).mkdir(u"systemctl"_s));
        QCOMPARE(system::serviceStatus({u"a"_s}), QJsonArray());
    }

    void hangingSystemctl_data()
    {
        QTest::addColumn<QByteArray>("body");
        QTest::newRow("silent") << QByteArray("exec sleep 60");
        QTest::newRow("deaf-to-signals-with-a-child")
            << QByteArray("trap '' TERM INT HUP; sleep 60 & echo $! >\"$0.child\"; wait; sleep 60");
        QTest::newRow("output-closed") << QByteArray("exec >/dev/null sleep 60");
        QTest::newRow("never-done") << QByteArray("while sleep 0.1; do echo Id=x; done");
    }
    void hangingSystemctl()
    {
        QFETCH(const QByteArray, body);
        makeSystemctl("echo SubState=running\n" + body);
        const qsizetype files = openFiles();
        QElapsedTimer timer;
        timer.start();
        QCOMPARE(text(system::serviceStatus({u"a"_s})), u"[{\"name\":\"a\",\"sub\":\"running\"}]"_s);
        QVERIFY2(timer.elapsed() >= kAnswerMs - 100, "it did not wait");
        QVERIFY2(timer.elapsed() < kAnswerMs + 2'000, qPrintable(u"%1 ms"_s.arg(timer.elapsed())));
        QVERIFY(isGone(u"pid"_s));
        QCOMPARE(openFiles(), files);
    }

    void endlessOutputIsGivenUp()
    {
        makeSystemctl("echo LoadState=loaded; yes SubState=running | head -c 20000000; echo >\"$0.all\"");
        QCOMPARE(text(system::serviceStatus({u"a"_s})),
                 u"[{\"loaded\":true,\"name\":\"a\",\"sub\":\"running\"}]"_s);
        QVERIFY2(scriptFile(u"all"_s).isEmpty(), "it read for as long as there was something to read");
        QVERIFY(isGone(u"pid"_s));
    }

    void muchOutput_data()
    {
        QTest::addColumn<int>("size");
        QTest::addColumn<bool>("whole");
        QTest::newRow("more-than-a-pipe-holds") << 300'000 << true;
        QTest::newRow("the-most-that-is-read") << 1'048'576 << true;
        QTest::newRow("the-most-that-is-read-plus-one") << 1'048'577 << false;
    }
    void muchOutput()
    {
        QFETCH(const int, size);
        QFETCH(const bool, whole);
        const QByteArray end = "\nSubState=0123456789";
        makeSystemctl("head -c " + QByteArray::number(size - end.size()) + " /dev/zero; printf '"
                      + QByteArray(end).replace("\n", "\\n") + "'");
        QCOMPARE(text(system::serviceStatus({u"a"_s})), whole
                                                            ? u"[{\"name\":\"a\",\"sub\":\"0123456789\"}]"_s
                                                            : u"[{\"name\":\"a\",\"sub\":\"012345678\"}]"_s);
    }

    /// The program of this machine, whatever it has to say.
    void systemctlOfThisMachine()
    {
        qputenv("PATH", m_path);
        const QStringList names{u"apache2"_s, u"no-such-unit-here"_s};
        const QJsonArray services = system::serviceStatus(names);
        QVERIFY(services.size() <= names.size());
        for (qsizetype i = 0; i < services.size(); ++i) {
            QCOMPARE(services.at(i)[u"name"_s].toString(), names.at(i));
            QVERIFY(services.at(i).toObject().contains(u"loaded"_s));
        }
    }
};

QTEST_GUILESS_MAIN(tst_SystemServices)
#include "tst_SystemServices.moc"
