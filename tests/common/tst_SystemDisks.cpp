#include "common/Mounts.h"
#include "common/System.h"
#include "common/SystemTest.h"

#include <QJsonArray>
#include <QJsonObject>
#include <QRegularExpression>
#include <QStorageInfo>
#include <QTest>

#include <mutex>
#include <optional>

#include <sys/statvfs.h>

using namespace Qt::Literals::StringLiterals;
using namespace tarn;
using namespace tarn::test;
using system::Volume;

namespace {

constexpr qint64 kMegaByte = 1'048'576;

/// A line of /proc/self/mountinfo (proc(5)).
struct Mount
{
    QString folder;
    QString type;
    QString device;
};

QList<Mount> mountTable()
{
    QList<Mount> mounts;
    const QList<QByteArray> lines = contentsOf(u"/proc/self/mountinfo"_s).split('\n');
    for (const QByteArray& line : lines) {
        const qsizetype dash = line.indexOf(" - ");
        if (dash < 0)
            continue;
        const QList<QByteArray> second = line.mid(dash + 3).split(' ');
        mounts.append({QString::fromUtf8(line.split(' ').at(4)).replace(u"\\040"_s, u" "_s),
                       QString::fromUtf8(second.at(0)), QString::fromUtf8(second.at(1))});
    }
    return mounts;
}

} // namespace

/// Which mounts are disks, and what is told of each.
class tst_SystemDisks : public QObject
{
    Q_OBJECT

private:
    static Volume volume(const QString& mount, const QByteArray& type = "ext4", qint64 total = 1'000)
    {
        return {mount, "/dev/sda1", type, total, 400, true};
    }

    static QStringList mountsOf(const QJsonArray& disks)
    {
        QStringList mounts;
        for (const auto& disk : disks)
            mounts.append(disk.toObject()[u"mount"_s].toString());
        return mounts;
    }

private Q_SLOTS:
    void init() { QTest::failOnWarning(QRegularExpression(u".?"_s)); }

    void listedVolumes_data()
    {
        QTest::addColumn<Volume>("given");
        QTest::addColumn<bool>("listed");
        QTest::newRow("root") << volume(u"/"_s) << true;
        QTest::newRow("boot") << volume(u"/boot/efi"_s, "vfat") << true;
        QTest::newRow("home") << volume(u"/home"_s, "xfs") << true;
        QTest::newRow("network") << volume(u"/srv/backup"_s, "nfs4") << true;
        QTest::newRow("one-byte") << volume(u"/"_s, "ext4", 1) << true;
        QTest::newRow("no-size") << volume(u"/sys/fs/x"_s, "ext4", 0) << false;
        QTest::newRow("size-unknown") << volume(u"/"_s, "ext4", -1) << false;
        Volume unusable = volume(u"/"_s);
        unusable.usable = false;
        QTest::newRow("not-ready") << unusable << false;

        for (const char* type : {"tmpfs", "devtmpfs", "squashfs", "overlay", "efivarfs", "ramfs",
                                 "fuse.portal", "fuse.gvfsd-fuse"})
            QTest::addRow("type-%s", type) << volume(u"/mnt"_s, type) << false;
        QTest::newRow("type-in-capitals") << volume(u"/mnt"_s, "TMPFS") << true;
        QTest::newRow("type-longer") << volume(u"/mnt"_s, "tmpfs2") << true;
        QTest::newRow("type-shorter") << volume(u"/mnt"_s, "fuse") << true;
        QTest::newRow("type-fuse") << volume(u"/mnt"_s, "fuse.sshfs") << true;
        QTest::newRow("type-unknown") << volume(u"/mnt"_s, "") << true;

        QTest::newRow("snap-package") << volume(u"/snap/core/123"_s) << false;
        QTest::newRow("snap-itself") << volume(u"/snap"_s) << true;
        QTest::newRow("snap-longer") << volume(u"/snapshots/1"_s) << true;
        QTest::newRow("snap-deeper") << volume(u"/var/lib/snapd/snap/core"_s) << true;
        QTest::newRow("snap-in-capitals") << volume(u"/Snap/core"_s) << true;
        QTest::newRow("run-user") << volume(u"/run/user/1000"_s) << false;
        QTest::newRow("run-itself") << volume(u"/run"_s) << true;
        QTest::newRow("run-longer") << volume(u"/runner"_s) << true;
        QTest::newRow("run-deeper") << volume(u"/var/run/x"_s) << true;
        QTest::newRow("run-in-capitals") << volume(u"/RUN/x"_s) << true;
    }
    void listedVolumes()
    {
        QFETCH(const Volume, given);
        QFETCH(const bool, listed);
        const QJsonArray expected{
            QJsonObject{
                        {u"mount"_s, given.mount},
                        {u"device"_s, u"/dev/sda1"_s},
                        {u"type"_s, QString::fromLatin1(given.type)},
                        {u"total"_s, given.totalBytes},
                        {u"avail"_s, 400},
                        }
        };
        QCOMPARE(system::disks({given}), listed ? expected : QJsonArray());
    }

    void volumesKeepTheirOrder()
    {
        const QList<Volume> volumes{
            volume(u"/"_s),
            volume(u"/boot/efi"_s, "vfat"),
            volume(u"/snap/core/123"_s, "squashfs"),
            volume(u"/run/user/1000"_s, "tmpfs"),
            volume(u"/mnt/data"_s),
            volume(u"/home"_s),
            volume(u"/mnt/data"_s), // mounted over it
        };
        QCOMPARE(mountsOf(system::disks(volumes)),
                 (QStringList{u"/"_s, u"/boot/efi"_s, u"/mnt/data"_s, u"/home"_s, u"/mnt/data"_s}));
        QCOMPARE(system::disks(QList<Volume>()), QJsonArray());
    }

    void volumeInFull()
    {
        const Volume large{u"/srv/\u00fcber 100%1"_s, "/dev/mapper/d\xfc",   "btrfs",
                           9'007'199'254'740'993,     9'007'199'254'740'992, true};
        const QJsonObject disk = system::disks({large}).at(0).toObject();
        QCOMPARE(disk.keys(), (QStringList{u"avail"_s, u"device"_s, u"mount"_s, u"total"_s, u"type"_s}));
        QCOMPARE(disk[u"mount"_s].toString(), large.mount);
        QCOMPARE(disk[u"device"_s].toString(), u"/dev/mapper/d\u00fc"_s);
        QCOMPARE(disk[u"type"_s].toString(), u"btrfs"_s);
        QCOMPARE(disk[u"total"_s].toInteger(), large.totalBytes);
        QCOMPARE(disk[u"avail"_s].toInteger(), large.availableBytes);
    }

    void disksOfThisMachine()
    {
        const QList<Mount> table = mountTable();
        const QJsonArray disks = system::disks();
        qsizetype place = 0;
        for (const auto& value : disks) {
            const QJsonObject disk = value.toObject();
            const QString mount = disk[u"mount"_s].toString();
            const auto fits = [&](const Mount& line) {
                return line.folder == mount && line.type == disk[u"type"_s].toString()
                       && line.device == disk[u"device"_s].toString();
            };
            while (place < table.size() && !fits(table.at(place)))
                ++place;
            QVERIFY2(place < table.size(),
                     qPrintable(mount + u" is not in the table, or not in its order"_s));
            ++place;

            struct statvfs figures = {};
            QCOMPARE(statvfs(mount.toLocal8Bit().constData(), &figures), 0);
            const auto unit = static_cast<qint64>(figures.f_frsize);
            QCOMPARE(disk[u"total"_s].toInteger(), static_cast<qint64>(figures.f_blocks) * unit);
            // Others write meanwhile.
            const qint64 available = static_cast<qint64>(figures.f_bavail) * unit;
            QVERIFY(qAbs(disk[u"avail"_s].toInteger() - available) < 1024 * kMegaByte);
        }
        for (const Mount& line : table) {
            if (line.folder == u"/"_s && line.type == u"ext4"_s)
                QVERIFY2(mountsOf(disks).contains(u"/"_s), "the root is missing");
        }
    }

    /// Another reader of the same machine, but for what is mounted over, which it lists as well.
    void disksAsQtSeesThem()
    {
        QList<Volume> volumes;
        const QList<QStorageInfo> mounted = QStorageInfo::mountedVolumes();
        for (const QStorageInfo& one : mounted) {
            volumes.removeIf([&one](const Volume& before) { return before.mount == one.rootPath(); });
            volumes.append({one.rootPath(), one.device(), one.fileSystemType(), one.bytesTotal(),
                            one.bytesAvailable(), one.isValid() && one.isReady()});
        }
        const QJsonArray expected = system::disks(volumes);
        const QJsonArray disks = system::disks();
        QVERIFY(!disks.isEmpty());
        QCOMPARE(mountsOf(disks), mountsOf(expected));
        for (qsizetype i = 0; i < disks.size(); ++i) {
            for (const QString& key : {u"device"_s, u"type"_s, u"total"_s})
                QCOMPARE(disks.at(i)[key], expected.at(i)[key]);
            // Others write meanwhile.
            QVERIFY(qAbs(disks.at(i)[u"avail"].toInteger() - expected.at(i)[u"avail"].toInteger())
                    < 1024 * kMegaByte);
        }
    }

    void capturedTables_data()
    {
        QTest::addColumn<QStringList>("mounts");
        // ProtectSystem=strict makes the homes writable by mounting them anew, unless they are to stay
        // read-only.
        QTest::newRow("systemd-252-strict") << QStringList{u"/"_s, u"/home"_s, u"/root"_s};
        QTest::newRow("systemd-252-strict-home-read-only") << QStringList{u"/"_s};
    }
    void capturedTables()
    {
        const QString name = QString::fromLatin1(QTest::currentDataTag());
        const QByteArray table = contentsOf(QStringLiteral(TARN_TEST_DATA "/mountinfo/") + name + u".txt"_s);
        system::SpaceQuery query([](const QByteArray&) { return system::Space{1'000, 400}; });
        QTEST(mountsOf(system::disks(table, query)), "mounts");
    }

    /// The unit's own settings, of which the captured tables show what they do.
    void theUnitAddsNoDisks()
    {
        const QByteArray unit =
            contentsOf(QStringLiteral(TARN_TEST_DATA "/../../packaging/tarn-collect.service"));
        QVERIFY(unit.contains("\nProtectSystem=strict\n"));
        QVERIFY(unit.contains("\nProtectHome=read-only\n"));
        for (const char* setting : {"PrivateTmp=", "ReadWritePaths=", "BindPaths=", "TemporaryFileSystem="})
            QVERIFY2(!unit.contains(QByteArray("\n") + setting), setting);
    }

    void mountsThatAreNotListedAreNotAsked()
    {
        const QByteArray table = "1 0 0:1 / / rw - ext4 /dev/sda1 rw\n"
                                 "2 1 0:2 / /run/media/x rw - ext4 /dev/sdb1 rw\n"
                                 "3 1 0:3 / /snap/core/1 rw - ext4 /dev/loop0 rw\n"
                                 "4 1 0:4 / /tmp rw - tmpfs tmpfs rw\n"
                                 "5 1 0:5 / /net/a rw - autofs auto rw\n"
                                 "6 1 0:6 / /sys/fs/x rw - x x rw\n"
                                 "7 1 0:7 / /proc rw - proc proc rw\n"
                                 "8 1 0:8 / /covered rw - nfs4 gone:/ rw\n"
                                 "9 8 0:9 / /covered rw - ext4 /dev/my\\040disk rw\n"
                                 "10 1 0:9 / /syslog\\0401 rw - ext4 /dev/sdc1 rw\n"
                                 "11 1 0:9 / /zero rw - x x rw\n"
                                 "12 1 0:9 / /broken rw - ext4 /dev/sdd1 rw\n";
        std::mutex mutex;
        QStringList asked;
        system::SpaceQuery query([&](const QByteArray& folder) {
            const std::lock_guard lock(mutex);
            asked.append(QString::fromUtf8(folder));
            return folder == "/broken" ? std::nullopt
                                       : std::optional(system::Space{folder == "/zero" ? 0 : 1'000, 400});
        });
        const QJsonArray disks = system::disks(table, query);
        asked.sort();
        QCOMPARE(asked, (QStringList{u"/"_s, u"/broken"_s, u"/covered"_s, u"/syslog 1"_s, u"/zero"_s}));
        QCOMPARE(mountsOf(disks), (QStringList{u"/"_s, u"/covered"_s, u"/syslog 1"_s}));
        QCOMPARE(disks.at(1)[u"device"].toString(), u"/dev/my disk"_s);
    }
};

QTEST_GUILESS_MAIN(tst_SystemDisks)
#include "tst_SystemDisks.moc"
