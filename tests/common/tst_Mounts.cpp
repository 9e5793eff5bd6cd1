#include "common/Mounts.h"
#include "support/CpuTime.h"
#include "support/HostileTexts.h"

#include <QElapsedTimer>
#include <QFile>
#include <QRegularExpression>
#include <QTest>

#include <condition_variable>
#include <memory>
#include <mutex>

using namespace Qt::Literals::StringLiterals;
using namespace tarn;
using system::Mount;
using system::Space;
using system::SpaceQuery;

namespace {

constexpr qint64 kLimitMs = std::chrono::milliseconds(SpaceQuery::kLimit).count();
constexpr qint64 kSlackMs = 3'000;

Mount mount(qint64 id, qint64 parent, const QByteArray& folder, const QByteArray& device = "/dev/sda1")
{
    return {id, parent, folder, "ext4", device};
}

QList<QByteArray> devicesOf(const QList<Mount>& mounts)
{
    QList<QByteArray> devices;
    for (const Mount& one : mounts)
        devices.append(one.device);
    return devices;
}

/// Mounts of which those below /hung answer only once they are let go.
class Kernel
{
public:
    ~Kernel() { letGo(); }

    SpaceQuery::Ask ask()
    {
        return [state = m_state](const QByteArray& folder) -> std::optional<Space> {
            std::unique_lock lock(state->mutex);
            ++state->calls;
            ++state->running;
            state->changed.wait(lock, [&] { return !state->hangs || !folder.startsWith("/hung"); });
            --state->running;
            state->changed.notify_all();
            return folder == "/broken" ? std::nullopt : std::optional(Space{1'000, folder.size()});
        };
    }

    void hang()
    {
        const std::lock_guard lock(m_state->mutex);
        m_state->hangs = true;
    }
    /// Returns when nobody hangs any more.
    void letGo()
    {
        std::unique_lock lock(m_state->mutex);
        m_state->hangs = false;
        m_state->changed.notify_all();
        m_state->changed.wait(lock, [this] { return m_state->running == 0; });
    }

    int calls() const
    {
        const std::lock_guard lock(m_state->mutex);
        return m_state->calls;
    }
    int hanging() const
    {
        const std::lock_guard lock(m_state->mutex);
        return m_state->running;
    }

private:
    struct State
    {
        std::mutex mutex;
        std::condition_variable changed;
        bool hangs = true;
        int calls = 0;
        int running = 0;
    };
    std::shared_ptr<State> m_state = std::make_shared<State>();
};

void expectSilence(const QByteArray& folder)
{
    const QByteArray line = "collect: " + folder + " does not answer; its size is not known until it does";
    QTest::ignoreMessage(QtWarningMsg, line.constData());
}

} // namespace

class tst_Mounts : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init() { QTest::failOnWarning(QRegularExpression(u".?"_s)); }

    void line_data()
    {
        QTest::addColumn<QByteArray>("line");
        QTest::addColumn<QByteArray>("folder");
        QTest::addColumn<QByteArray>("type");
        QTest::addColumn<QByteArray>("device");
        const auto row = [](const char* name, const QByteArray& line, const QByteArray& folder,
                            const QByteArray& type, const QByteArray& device) {
            QTest::newRow(name) << line << folder << type << device;
        };
        row("plain", "36 35 98:0 / /srv rw,noatime - ext3 /dev/root rw", "/srv", "ext3", "/dev/root");
        row("one-tag", "36 35 98:0 / /srv rw master:1 - ext3 /dev/root rw", "/srv", "ext3", "/dev/root");
        row("many-tags", "36 35 98:0 / /srv rw shared:7 master:1 propagate_from:2 unbindable - xfs /dev/a rw",
            "/srv", "xfs", "/dev/a");
        row("no-options-at-the-end", "36 35 98:0 / /srv rw - ext3 /dev/root", "/srv", "ext3", "/dev/root");
        row("no-device", "36 35 0:9 / /srv rw - tmpfs  rw", "/srv", "tmpfs", "");
        row("blank", "36 35 98:0 / /srv/my\\040data rw - ext3 /dev/my\\040disk rw", "/srv/my data", "ext3",
            "/dev/my disk");
        row("tab-line-feed-backslash-hash", "36 35 98:0 / /a\\011b\\012c\\134d\\043e rw - ext3 x rw",
            "/a\tb\nc\\d#e", "ext3", "x");
        row("greatest-escape", "36 35 98:0 / /\\377 rw - ext3 x rw", "/\xff", "ext3", "x");
        row("no-escape", "36 35 98:0 / /\\400\\048\\04 rw - ext3 x rw", "/\\400\\048\\04", "ext3", "x");
        row("backslash-at-the-end", "36 35 98:0 / /a\\ rw - ext3 x rw", "/a\\", "ext3", "x");
        row("beyond-ascii", "36 35 98:0 / /\xc3\xbc rw - ext3 x rw", "/\xc3\xbc", "ext3", "x");
        row("dash-as-device", "36 35 98:0 / /- rw - ext3 - rw", "/-", "ext3", "-");
        row("fuse", "36 35 0:50 / /mnt/a rw shared:1 - fuse.sshfs me@host:/ rw,user_id=0", "/mnt/a",
            "fuse.sshfs", "me@host:/");
    }
    void line()
    {
        QFETCH(const QByteArray, line);
        const QList<Mount> mounts = system::parseMountInfo("nonsense\n" + line + '\n');
        QCOMPARE(mounts.size(), 1);
        QCOMPARE(mounts.first().id, 36);
        QCOMPARE(mounts.first().parent, 35);
        QTEST(mounts.first().folder, "folder");
        QTEST(mounts.first().type, "type");
        QTEST(mounts.first().device, "device");
    }

    void noLine_data()
    {
        QTest::addColumn<QByteArray>("line");
        QTest::newRow("empty") << QByteArray();
        QTest::newRow("no-dash") << QByteArray("36 35 98:0 / /srv rw master:1 ext3 /dev/root rw");
        QTest::newRow("dash-too-early") << QByteArray("36 35 98:0 / - rw");
        QTest::newRow("cut-behind-the-dash") << QByteArray("36 35 98:0 / /srv rw -");
        QTest::newRow("cut-behind-the-type") << QByteArray("36 35 98:0 / /srv rw - ext3");
        QTest::newRow("no-number") << QByteArray("x 35 98:0 / /srv rw - ext3 /dev/root rw");
        QTest::newRow("no-parent") << QByteArray("36 x 98:0 / /srv rw - ext3 /dev/root rw");
        QTest::newRow("no-path") << QByteArray("36 35 98:0 / srv rw - ext3 /dev/root rw");
    }
    void noLine()
    {
        QFETCH(const QByteArray, line);
        QVERIFY(system::parseMountInfo(line).isEmpty());
    }

    void mostTags()
    {
        const auto table = [](qsizetype tags) {
            return "36 35 98:0 / /srv rw " + QByteArray("a:1 ").repeated(tags) + "- ext3 /dev/root rw";
        };
        QCOMPARE(system::parseMountInfo(table(64)).size(), 1);
        QVERIFY(system::parseMountInfo(table(65)).isEmpty());
    }

    void longestFolder()
    {
        const auto table = [](qsizetype size) {
            return "36 35 98:0 / /" + QByteArray(size - 1, 'x') + " rw - ext3 /dev/root rw";
        };
        QCOMPARE(system::parseMountInfo(table(4'095)).size(), 1);
        QVERIFY(system::parseMountInfo(table(4'096)).isEmpty());
    }

    /// By the ratio within one run, in processor time. Each mount's way to the root was gone again for each
    /// one below it.
    void nestedMountsCostLittleMoreThanOthers()
    {
        constexpr qint64 kMounts = 3'000;
        QList<Mount> nested;
        QList<Mount> others;
        for (qint64 id = 1; id <= kMounts; ++id) {
            nested.append(mount(id, id - 1, "/a/" + QByteArray::number(id)));
            others.append(mount(id, 0, "/a/" + QByteArray::number(id)));
        }
        QCOMPARE(system::visibleMounts(nested).size(), kMounts);
        const double plain = tarn::tests::leastSeconds(5, [&] { system::visibleMounts(others); });
        const double hostile = tarn::tests::leastSeconds(5, [&] { system::visibleMounts(nested); });
        QVERIFY2(hostile < tarn::tests::kMostTimes * plain,
                 qPrintable(u"%1 us, %2 us"_s.arg(hostile * 1e6).arg(plain * 1e6)));
    }

    void visible_data()
    {
        QTest::addColumn<QList<Mount>>("mounts");
        QTest::addColumn<QList<QByteArray>>("devices");
        const Mount root = mount(10, 1, "/", "root");
        const auto row = [&root](const char* name, const QList<Mount>& mounts,
                                 const QList<QByteArray>& devices) {
            QTest::newRow(name) << QList<Mount>{root} + mounts << QList<QByteArray>{"root"} + devices;
        };
        row("side-by-side", {mount(11, 10, "/a", "a"), mount(12, 10, "/b", "b")}, {"a", "b"});
        row("one-device-at-two-folders", {mount(11, 10, "/a", "a"), mount(12, 10, "/b", "a")}, {"a", "a"});
        row("nested", {mount(11, 10, "/a", "a"), mount(12, 11, "/a/b", "b")}, {"a", "b"});
        row("over-mounted", {mount(11, 10, "/a", "a"), mount(12, 11, "/a", "b")}, {"b"});
        row("over-mounted-twice",
            {mount(11, 10, "/a", "a"), mount(12, 11, "/a", "b"), mount(13, 12, "/a", "c")}, {"c"});
        row("order-stays", {mount(11, 10, "/a", "a"), mount(12, 10, "/b", "b"), mount(13, 11, "/a", "c")},
            {"b", "c"});
        row("above-covered-later", {mount(11, 10, "/a/b", "b"), mount(12, 10, "/a", "a")}, {"a"});
        row("far-above-covered-later", {mount(11, 10, "/a/b/c/d", "d"), mount(12, 10, "/a", "a")}, {"a"});
        row("below-what-is-covered",
            {mount(11, 10, "/a/b", "b"), mount(12, 11, "/a/b/c", "c"), mount(13, 10, "/a", "a")}, {"a"});
        row("inside-the-cover",
            {mount(11, 10, "/a", "a"), mount(12, 11, "/a", "b"), mount(13, 12, "/a/c", "c")}, {"b", "c"});
        row("inside-the-covered",
            {mount(11, 10, "/a", "a"), mount(13, 11, "/a/c", "c"), mount(12, 11, "/a", "b")}, {"b"});
        row("name-is-the-start-of-another", {mount(11, 10, "/ab", "ab"), mount(12, 10, "/a", "a")},
            {"ab", "a"});
        // As after a mount that came from elsewhere.
        row("two-side-by-side-at-one-folder", {mount(11, 10, "/a", "a"), mount(12, 10, "/a", "b")}, {"b"});
        // Moved there, it keeps its older number and its earlier line.
        row("over-mounted-by-an-older-one", {mount(11, 12, "/a", "a"), mount(12, 10, "/a", "b")}, {"a"});
        row("unknown-parent", {mount(11, 99, "/a", "a")}, {"a"});
        row("circle", {mount(11, 12, "/a/b", "a"), mount(12, 11, "/c/d", "b")}, {"a", "b"});
        QTest::newRow("root-over-another")
            << QList<Mount>{mount(1, 1, "/", "rootfs"), mount(10, 1, "/", "root"), mount(11, 10, "/a", "a")}
            << QList<QByteArray>{"root", "a"};
    }
    void visible()
    {
        QFETCH(const QList<Mount>, mounts);
        QTEST(devicesOf(system::visibleMounts(mounts)), "devices");
    }

    void spaceOfFolders()
    {
        const std::optional<Space> root = system::spaceOf("/");
        QVERIFY(root && root->totalBytes > root->availableBytes && root->availableBytes >= 0);
        QVERIFY(!system::spaceOf("/no/such/folder"));
        QVERIFY(!system::spaceOf(""));
    }

    void answers()
    {
        Kernel kernel;
        SpaceQuery query(kernel.ask());
        const QHash<QByteArray, Space> spaces =
            query.ask({mount(1, 0, "/"), mount(2, 1, "/broken"), mount(3, 1, "/a")});
        QCOMPARE(spaces.size(), 2);
        QCOMPARE(spaces.value("/").totalBytes, 1'000);
        QCOMPARE(spaces.value("/").availableBytes, 1);
        QCOMPARE(spaces.value("/a").availableBytes, 2);
        QVERIFY(query.ask({}).isEmpty());
    }

    void mountThatHangs()
    {
        Kernel kernel;
        SpaceQuery query(kernel.ask());
        const QList<Mount> mounts{mount(1, 0, "/hung"), mount(2, 1, "/hung/too"), mount(3, 1, "/a")};
        expectSilence("/hung");
        expectSilence("/hung/too");
        QElapsedTimer timer;
        timer.start();
        // The others are asked at the same time.
        QCOMPARE(query.ask(mounts).keys(), QList<QByteArray>{"/a"});
        QVERIFY2(timer.elapsed() >= kLimitMs - 50 && timer.elapsed() < 2 * kLimitMs,
                 qPrintable(QString::number(timer.elapsed())));

        // As long as it hangs it is neither asked nor waited for again, nor is it said again.
        timer.restart();
        for (int i = 0; i < 5; ++i)
            QCOMPARE(query.ask(mounts).keys(), QList<QByteArray>{"/a"});
        QVERIFY2(timer.elapsed() < kLimitMs, qPrintable(QString::number(timer.elapsed())));
        QCOMPARE(kernel.hanging(), 2);
        QCOMPARE(kernel.calls(), 8);

        kernel.letGo();
        QTRY_COMPARE(query.ask(mounts).size(), 3);
        kernel.hang();
        expectSilence("/hung");
        expectSilence("/hung/too");
        QCOMPARE(query.ask(mounts).size(), 1);
    }

    void mountThatIsAlwaysLateIsSaidOnce()
    {
        Kernel kernel;
        SpaceQuery query(kernel.ask(), std::chrono::milliseconds(50));
        const QList<Mount> mounts{mount(1, 0, "/hung")};
        expectSilence("/hung");
        for (int i = 0; i < 3; ++i) {
            // It is asked again once its thread has ended, which is a moment after its late answer.
            QTRY_VERIFY(query.ask(mounts).isEmpty() && kernel.calls() == i + 1);
            kernel.letGo();
            kernel.hang();
        }
    }

    void anotherMountAtTheSameFolder()
    {
        Kernel kernel;
        SpaceQuery query(kernel.ask(), std::chrono::milliseconds(50));
        expectSilence("/hung");
        QCOMPARE(query.ask({mount(1, 0, "/hung")}).size(), 0);
        expectSilence("/hung");
        QCOMPARE(query.ask({mount(2, 0, "/hung")}).size(), 0);
        QTRY_COMPARE(kernel.calls(), 2);
    }

    void threadsAreBounded_data()
    {
        QTest::addColumn<int>("hanging");
        QTest::addColumn<int>("answers");
        const auto most = static_cast<int>(SpaceQuery::kMaxThreads);
        QTest::newRow("one-left") << most - 1 << 1;
        QTest::newRow("none-left") << most << 0;
    }
    void threadsAreBounded()
    {
        QFETCH(const int, hanging);
        Kernel kernel;
        SpaceQuery query(kernel.ask(), std::chrono::milliseconds(500));
        QList<Mount> mounts;
        for (int i = 0; i < hanging; ++i) {
            mounts.append(mount(i + 2, 1, "/hung/" + QByteArray::number(i)));
            expectSilence(mounts.last().folder);
        }
        query.ask(mounts);
        const QHash<QByteArray, Space> spaces = query.ask(mounts + QList<Mount>{mount(1, 0, "/a")});
        QTEST(static_cast<int>(spaces.size()), "answers");
        QTRY_COMPARE(kernel.hanging(), hanging);
    }

    void endsWhileAMountHangs()
    {
        Kernel kernel;
        {
            SpaceQuery query(kernel.ask(), std::chrono::milliseconds(50));
            expectSilence("/hung");
            QElapsedTimer timer;
            timer.start();
            query.ask({mount(1, 0, "/hung")});
            QVERIFY2(timer.elapsed() < kSlackMs, qPrintable(QString::number(timer.elapsed())));
        }
        QTRY_COMPARE(kernel.hanging(), 1);
        kernel.letGo();
    }
};

QTEST_GUILESS_MAIN(tst_Mounts)
#include "tst_Mounts.moc"
