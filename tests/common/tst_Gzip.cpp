#include "common/Gzip.h"
#include "support/GzipProgram.h"

#include <QFile>
#include <QRandomGenerator>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>

#include <fcntl.h>
#include <unistd.h>

using namespace Qt::Literals::StringLiterals;
using tarn::test::gzip;

namespace {

/// Bytes that hardly compress, the same each time.
QByteArray noise(qsizetype size)
{
    QRandomGenerator random(1);
    QByteArray bytes(size, Qt::Uninitialized);
    for (char& byte : bytes)
        byte = static_cast<char>(random.bounded(256));
    return bytes;
}

QByteArray damagedAt(QByteArray data, qsizetype place)
{
    data[place] = static_cast<char>(data.at(place) ^ 0x55);
    return data;
}

/// Catches what is written to standard error, by this process or its children, while it lives.
class StandardErrorCatcher
{
public:
    explicit StandardErrorCatcher(const QString& path)
        : m_path(path)
        , m_saved(dup(STDERR_FILENO))
    {
        const int file = open(qPrintable(path), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
        dup2(file, STDERR_FILENO);
        close(file);
    }
    ~StandardErrorCatcher() { release(); }

    QByteArray release()
    {
        if (m_saved >= 0) {
            dup2(m_saved, STDERR_FILENO);
            close(m_saved);
            m_saved = -1;
        }
        QFile file(m_path);
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("nothing was caught");
    }

private:
    QString m_path;
    int m_saved;
};

} // namespace

class tst_Gzip : public QObject
{
    Q_OBJECT

private:
    QString makeFile(const QString& name, const QByteArray& contents) const
    {
        const QString path = m_folder.filePath(name);
        QFile file(path);
        return file.open(QIODevice::WriteOnly) && file.write(contents) == contents.size() ? path : QString();
    }

    QTemporaryDir m_folder;
    QByteArray m_path;

private Q_SLOTS:
    void init()
    {
        QTest::failOnWarning(QRegularExpression(u".?"_s));
        m_path = qgetenv("PATH");
    }
    void cleanup() { qputenv("PATH", m_path); }

    void roundTrip_data()
    {
        QTest::addColumn<QByteArray>("data");
        QTest::newRow("nothing") << QByteArray();
        QTest::newRow("one-byte") << QByteArray("x");
        QTest::newRow("nul-bytes") << QByteArray("a\0b\0", 4);
        QTest::newRow("carriage-returns") << QByteArray("a\r\nb\r\n");
        QTest::newRow("a-pipe-full") << noise(65'536);
        QTest::newRow("many-pipes-full") << noise(20'000'000);
        QTest::newRow("grows-a-thousandfold") << QByteArray(50'000'000, 'x');
    }
    void roundTrip()
    {
        QFETCH(const QByteArray, data);
        bool intact = false;
        const QByteArray result = tarn::gunzip(gzip(data), &intact);
        QVERIFY(result == data); // too large to be printed
        QVERIFY(intact);
        QVERIFY(tarn::gunzip(gzip(data)) == data);
    }

    void membersAreJoined()
    {
        bool intact = false;
        QCOMPARE(tarn::gunzip(gzip("one ") + gzip("two"), &intact), QByteArray("one two"));
        QVERIFY(intact);
    }

    void whatStandsBehindIsPassedOver()
    {
        bool intact = false;
        QCOMPARE(tarn::gunzip(gzip("whole") + "rubbish", &intact), QByteArray("whole"));
        QVERIFY(intact);
    }

    void damagedData_data()
    {
        QTest::addColumn<QByteArray>("data");
        QTest::addColumn<qsizetype>("most"); // bytes of the result
        const QByteArray plain = noise(1'000'000);
        const QByteArray whole = gzip(plain);
        QTest::newRow("empty") << QByteArray() << qsizetype(0);
        QTest::newRow("plain-text") << QByteArray("1.0.0.0,1.0.0.255,AU\n") << qsizetype(0);
        QTest::newRow("plain-and-long") << QByteArray(50'000'000, 'x') << qsizetype(0);
        QTest::newRow("header-only") << whole.first(10) << qsizetype(0);
        QTest::newRow("half") << whole.first(whole.size() / 2) << plain.size() - 1;
        QTest::newRow("last-byte-missing") << whole.chopped(1) << plain.size();
        QTest::newRow("wrong-check-sum") << damagedAt(whole, whole.size() - 8) << plain.size();
        QTest::newRow("wrong-length") << damagedAt(whole, whole.size() - 1) << plain.size();
        // gunzip ends with most of its input unread.
        QTest::newRow("damaged-early-in-much") << damagedAt(gzip(noise(30'000'000)), 3) << qsizetype(0);
    }
    void damagedData()
    {
        QFETCH(const QByteArray, data);
        QFETCH(const qsizetype, most);
        bool intact = true;
        const QByteArray result = tarn::gunzip(data, &intact);
        QVERIFY(!intact);
        QVERIFY2(result.size() <= most, qPrintable(QString::number(result.size())));
        QVERIFY(noise(1'000'000).startsWith(result));
    }

    void whatStandsBeforeTheDamageIsGiven()
    {
        const QByteArray whole = gzip(QByteArray(10'000'000, 'x'));
        const QByteArray result = tarn::gunzip(whole.chopped(whole.size() / 10));
        QVERIFY(result.size() > 1'000'000);
        QCOMPARE(result.count('x'), result.size());
    }

    void complaintsStayOutOfTheLog()
    {
        StandardErrorCatcher caught(m_folder.filePath(u"stderr"_s));
        tarn::gunzip("no gzip");
        tarn::gunzip(gzip("cut").chopped(4));
        QCOMPARE(caught.release(), QByteArray());
    }

    void noGunzip()
    {
        qputenv("PATH", m_folder.path().toLocal8Bit());
        bool intact = true;
        StandardErrorCatcher caught(m_folder.filePath(u"stderr"_s));
        const QByteArray result = tarn::gunzip(QByteArray(1'000'000, 'x'), &intact);
        QCOMPARE(caught.release(), QByteArray());
        QCOMPARE(result, QByteArray());
        QVERIFY(!intact);
    }

    /// Programs of ours in place of gunzip: what it can do to its caller, whatever the data.
    void oddGunzips_data()
    {
        QTest::addColumn<QByteArray>("script");
        QTest::addColumn<QByteArray>("result");
        QTest::addColumn<bool>("intact");
        QTest::newRow("dies-at-once") << QByteArray("exit 1") << QByteArray() << false;
        QTest::newRow("killed") << QByteArray("echo some; kill -KILL $$") << QByteArray("some\n") << false;
        QTest::newRow("reads-nothing-and-is-content")
            << QByteArray("echo some") << QByteArray("some\n") << true;
        QTest::newRow("remark") << QByteArray("echo some; exit 2") << QByteArray("some\n") << true;
        QTest::newRow("remark-and-nothing-else") << QByteArray("exit 2") << QByteArray() << false;
        QTest::newRow("unknown-status") << QByteArray("echo some; exit 3") << QByteArray("some\n") << false;
        QTest::newRow("stops-reading-but-lives")
            << QByteArray("exec 0<&-; sleep 0.3; echo some; exit 1") << QByteArray("some\n") << false;
        QTest::newRow("stops-writing-but-lives")
            << QByteArray("exec 1>&-; cat >/dev/null; sleep 0.3") << QByteArray() << true;
        QTest::newRow("slow") << QByteArray("sleep 1; wc -c") << QByteArray("5000000\n") << true;
        QTest::newRow("arguments") << QByteArray("cat >/dev/null; echo \"$@\"") << QByteArray("-c\n") << true;
    }
    void oddGunzips()
    {
        QFETCH(const QByteArray, script);
        QFETCH(const QByteArray, result);
        QFETCH(const bool, intact);
        const QString program = makeFile(u"gunzip"_s, "#!/bin/sh\n" + script + '\n');
        QVERIFY(QFile::setPermissions(program, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner));
        qputenv("PATH", m_folder.path().toLocal8Bit() + ':' + m_path);
        bool found = !intact;
        QCOMPARE(tarn::gunzip(QByteArray(5'000'000, 'x'), &found), result);
        QCOMPARE(found, intact);
        QVERIFY(QFile::remove(program));
    }

    void fileNames_data()
    {
        QTest::addColumn<QString>("name");
        QTest::addColumn<bool>("decompressed");
        QTest::newRow("suffix") << u"ranges.csv.gz"_s << true;
        QTest::newRow("suffix-only") << u".gz"_s << true;
        QTest::newRow("odd-characters") << u"-c $(é) \".gz"_s << true;
        QTest::newRow("upper-case") << u"ranges.csv.GZ"_s << false;
        QTest::newRow("mixed-case") << u"ranges.csv.Gz"_s << false;
        QTest::newRow("no-dot") << u"rangesgz"_s << false;
        QTest::newRow("suffix-in-the-middle") << u"ranges.gz.csv"_s << false;
        QTest::newRow("other-suffix") << u"ranges.csv"_s << false;
    }
    void fileNames()
    {
        QFETCH(const QString, name);
        QFETCH(const bool, decompressed);
        const QByteArray bytes = gzip("contents");
        bool intact = false;
        QCOMPARE(tarn::readMaybeGzip(makeFile(name, bytes), &intact), decompressed ? "contents" : bytes);
        QVERIFY(intact);
    }

    void plainFile()
    {
        const QByteArray contents = noise(3'000'000);
        QVERIFY(tarn::readMaybeGzip(makeFile(u"plain"_s, contents)) == contents);
        QVERIFY(tarn::readMaybeGzip(makeFile(u"plain.gz"_s, contents)).isEmpty());
    }

    void emptyFiles()
    {
        bool intact = false;
        QVERIFY(tarn::readMaybeGzip(makeFile(u"empty"_s, {}), &intact).isEmpty());
        QVERIFY(intact);
        QVERIFY(tarn::readMaybeGzip(makeFile(u"empty.gz"_s, {}), &intact).isEmpty());
        QVERIFY(!intact);
    }

    void unreadableFiles_data()
    {
        QTest::addColumn<QString>("path");
        QTest::newRow("missing") << m_folder.filePath(u"missing"_s);
        QTest::newRow("missing-gz") << m_folder.filePath(u"missing.gz"_s);
        QTest::newRow("folder") << m_folder.path();
        QTest::newRow("no-name") << QString();
        QTest::newRow("fails-when-read") << u"/proc/self/mem"_s;
    }
    void unreadableFiles()
    {
        QFETCH(const QString, path);
        bool intact = true;
        QVERIFY(tarn::readMaybeGzip(path, &intact).isEmpty());
        QVERIFY(!intact);
        QVERIFY(tarn::readMaybeGzip(path).isEmpty());
    }
};

QTEST_GUILESS_MAIN(tst_Gzip)
#include "tst_Gzip.moc"
