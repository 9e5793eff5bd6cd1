#include "common/Settings.h"

#include <QFile>
#include <QHash>
#include <QRegularExpression>
#include <QSettings>
#include <QTemporaryDir>
#include <QTest>

#include <cmath>

using namespace Qt::Literals::StringLiterals;
using namespace tarn;

namespace {

QString text(std::string_view bytes)
{
    return QString::fromLatin1(bytes.data(), static_cast<qsizetype>(bytes.size()));
}

/// A key of the settings example.
struct Example
{
    QString value;
    bool isCommented = false;
};

/// The keys of the settings example, "section/key", commented ones ("; key=value" is prose, ";key=value" is
/// one) included.
QHash<QString, Example> examples()
{
    QFile file(QStringLiteral(TARN_SETTINGS_EXAMPLE));
    if (!file.open(QIODevice::ReadOnly))
        return {};
    static const QRegularExpression section(u"^\\[(\\w+)\\]$"_s);
    static const QRegularExpression entry(u"^(;?)(\\w+)=(.*)$"_s);
    QHash<QString, Example> found;
    QString folder;
    const QStringList lines = QString::fromUtf8(file.readAll()).split(u'\n');
    for (const QString& line : lines) {
        if (const auto match = section.match(line); match.hasMatch())
            folder = match.captured(1) + u'/';
        if (const auto match = entry.match(line); match.hasMatch())
            found.insert(folder + match.captured(2), {match.captured(3), !match.captured(1).isEmpty()});
    }
    return found;
}

/// What the manual says of each key, "section/key": the line behind the ".br" of its entry, without markup.
QHash<QString, QString> manualEntries()
{
    QFile file(QStringLiteral(TARN_SETTINGS_MANUAL));
    if (!file.open(QIODevice::ReadOnly))
        return {};
    static const QRegularExpression section(u"^\\.SS \\[(\\w+)\\]$"_s);
    static const QRegularExpression key(u"^\\\\fB(\\w+)\\\\fR$"_s);
    QHash<QString, QString> found;
    QString folder;
    QString entry;
    QString before;
    const QStringList lines = QString::fromUtf8(file.readAll()).replace(u"\\-"_s, u"-"_s).split(u'\n');
    for (const QString& line : lines) {
        if (line.startsWith(u".S"))
            folder = section.match(line).captured(1);
        if (const auto match = key.match(line); before == u".TP" && !folder.isEmpty() && match.hasMatch()) {
            entry = folder + u'/' + match.captured(1);
            found.insert(entry, QString());
        }
        if (before == u".br" && found.contains(entry))
            found.insert(entry, line);
        before = line;
    }
    return found;
}

/// The range of a setting as the manual writes it; empty when every text is one.
QString rangeInWords(const Setting& setting)
{
    switch (setting.kind) {
    case SettingKind::Text:
    case SettingKind::List:
        return {};
    case SettingKind::Flag:
        return u"true or false"_s;
    case SettingKind::Word:
        return text(setting.words).replace(u" "_s, u", "_s);
    case SettingKind::Whole:
    case SettingKind::Port:
    case SettingKind::Number:
        break;
    }
    const QString least = QString::number(setting.least);
    return std::isinf(setting.most) ? u"at least "_s + least
                                    : u"%1 to %2"_s.arg(least, QString::number(setting.most, 'g', 10));
}

/// What the manual's line has to match.
QRegularExpression manualLine(const Setting& setting)
{
    const auto exactly = [](const QString& words) { return QRegularExpression::escape(words); };
    const QString standard = exactly(text(setting.standard));
    QString pattern = setting.hasFixedDefault ? (standard.isEmpty() ? u"none"_s : standard)
                                              : u"computed, (?=.*"_s + standard + u").+"_s;
    pattern = u"Default: "_s + pattern + u"\\."_s;
    if (!setting.unit.empty())
        pattern += exactly(u" Unit: "_s + text(setting.unit) + u'.');
    if (const QString range = rangeInWords(setting); !range.isEmpty())
        pattern += exactly(u" Range: "_s + range + u'.');
    return QRegularExpression(QRegularExpression::anchoredPattern(pattern));
}

QList<Setting> allSettings()
{
    QList<Setting> all;
    for (const std::span<const Setting> table : kAllSettings) {
        for (const Setting& setting : table)
            all.append(setting);
    }
    return all;
}

} // namespace

class tst_Settings : public QObject
{
    Q_OBJECT

private:
    /// A settings file of @p line, "section/key=value".
    QString fileOf(const QString& line)
    {
        const QString path = m_folder.filePath(u"settings-%1.ini"_s.arg(++m_files));
        QFile file(path);
        const QByteArray contents =
            u"[%1]\n%2\n"_s.arg(line.section(u'/', 0, 0), line.section(u'/', 1)).toUtf8();
        if (!file.open(QIODevice::WriteOnly) || file.write(contents) != contents.size())
            qFatal("cannot write %s", qPrintable(path));
        return path;
    }

    QTemporaryDir m_folder;
    int m_files = 0;

private Q_SLOTS:
    void init() { QTest::failOnWarning(QRegularExpression(u".?"_s)); }

    void theExampleHasEveryKeyAndItsDefault()
    {
        const QHash<QString, Example> found = examples();
        QStringList problems;
        const QList<Setting> all = allSettings();
        for (const Setting& setting : all) {
            const QString key = text(setting.key);
            if (!found.contains(key)) {
                problems.append(key + u" is missing"_s);
                continue;
            }
            const Example example = found.value(key);
            // A default that is computed cannot stand there as a value.
            if (example.isCommented == setting.hasFixedDefault)
                problems.append(key + (example.isCommented ? u" is commented"_s : u" is not commented"_s));
            if (setting.hasFixedDefault && example.value != text(setting.standard))
                problems.append(key + u" is "_s + example.value);
        }
        QCOMPARE(problems, QStringList());
    }

    void theExampleHasNoOtherKey()
    {
        QStringList known;
        const QList<Setting> all = allSettings();
        for (const Setting& setting : all)
            known.append(text(setting.key));
        QStringList unknown = examples().keys();
        QVERIFY(!unknown.isEmpty());
        unknown.removeIf([&known](const QString& key) { return known.contains(key); });
        QCOMPARE(unknown, QStringList());
    }

    void theExampleMakesSense()
    {
        checkSettings(QSettings(QStringLiteral(TARN_SETTINGS_EXAMPLE), QSettings::IniFormat));
    }

    void theManualHasEveryKeyWithDefaultUnitAndRange()
    {
        const QHash<QString, QString> found = manualEntries();
        QStringList problems;
        const QList<Setting> all = allSettings();
        for (const Setting& setting : all) {
            const QRegularExpression wanted = manualLine(setting);
            const QString key = text(setting.key);
            if (!found.contains(key))
                problems.append(key + u" is missing"_s);
            else if (!wanted.match(found.value(key)).hasMatch())
                problems.append(key + u": "_s + found.value(key) + u" is not "_s + wanted.pattern());
        }
        QVERIFY2(problems.isEmpty(), qPrintable(problems.join(u'\n')));
    }

    void theManualHasNoOtherKey()
    {
        QStringList unknown = manualEntries().keys();
        QVERIFY(!unknown.isEmpty());
        const QList<Setting> all = allSettings();
        for (const Setting& setting : all)
            unknown.removeAll(text(setting.key));
        QCOMPARE(unknown, QStringList());
    }

    void everyRowIsWhole()
    {
        const QList<Setting> all = allSettings();
        for (const Setting& setting : all) {
            const bool isNumber = setting.kind == SettingKind::Whole || setting.kind == SettingKind::Port
                                  || setting.kind == SettingKind::Number;
            QVERIFY2(!setting.meaning.empty(), setting.key.data());
            QVERIFY2(isNumber == (setting.least < setting.most), setting.key.data());
            QVERIFY2((setting.kind == SettingKind::Word) == !setting.words.empty(), setting.key.data());
        }
    }

    void defaults()
    {
        const QSettings empty(m_folder.filePath(u"none.ini"_s), QSettings::IniFormat);
        QCOMPARE(settingValue(empty, settingOf(kTimerSettings, "collect/interval_seconds")).toInt(), 30);
        QCOMPARE(settingValue(empty, settingOf(kHealthSettings, "hosting/db_limit_read_only")).toBool(),
                 true);
        QCOMPARE(settingValue(empty, settingOf(kHealthSettings, "health/load_alert_per_cpu")).toDouble(),
                 2.0);
        QVERIFY(!settingValue(empty, settingOf(kNotifySettings, "notify/mail_to")).isValid());
        // Its two readers have two defaults.
        QCOMPARE(settingValue(empty, settingOf(kGoogleSettings, "web/public_url")).toString(),
                 u"http://localhost:8095"_s);
        QVERIFY(!settingValue(empty, settingOf(kNotifySettings, "web/public_url")).isValid());
        QCOMPARE(settingValue(empty, settingOf(kNotifySettings, "notify/smtp_port"), 587).toInt(), 587);
    }

    void problems_data()
    {
        QTest::addColumn<QString>("line");
        QTest::addColumn<QString>("problem"); // empty: none

        const auto row = [](const char* name, const QString& line, const QString& problem = {}) {
            QTest::newRow(name) << line << (problem.isEmpty() ? QString() : line + problem);
        };
        const auto interval = u"collect/interval_seconds"_s;
        const auto range = u" is not from 1 to 2147483647 seconds; "_s;
        row("whole-least", interval + u"=1"_s);
        row("whole-below", interval + u"=0"_s, range + u"0 is used"_s);
        row("whole-negative", interval + u"=-5"_s, range + u"-5 is used"_s);
        row("whole-most", interval + u"=2147483647"_s);
        row("whole-above", interval + u"=2147483648"_s, range + u"-2147483648 is used"_s);
        row("whole-blanks", interval + u"=\" 30 \""_s);
        row("whole-empty", interval + u"="_s, u" is no whole number; 0 is used"_s);
        row("whole-with-unit", interval + u"=30s"_s, u" is no whole number; 0 is used"_s);
        row("whole-fraction", interval + u"=1.5"_s, u" is no whole number; 0 is used"_s);
        row("whole-past-64-bits", interval + u"=99999999999999999999"_s, u" is no whole number; 0 is used"_s);
        row("port-least", u"database/port=1"_s);
        row("port-most", u"database/port=65535"_s);
        row("port-above", u"database/port=65536"_s, u" is not from 1 to 65535; 65536 is used"_s);
        row("mail-port-most", u"notify/smtp_port=65535"_s);
        row("mail-port-above", u"notify/smtp_port=65536"_s, u" is not from 1 to 65535; 65536 is used"_s);
        row("mail-port-past-32-bits", u"notify/smtp_port=4294967761"_s,
            u" is not from 1 to 65535; 0 is used"_s);
        const auto disk = u"health/disk_alert_pct"_s;
        row("number-fraction", disk + u"=92.5"_s);
        row("number-least", disk + u"=1"_s);
        row("number-below", disk + u"=0.99"_s, u" is not at least 1 percent; 0.99 is used"_s);
        row("number-never-reached", disk + u"=1000"_s);
        row("number-percent-sign", disk + u"=90%"_s, u" is no number; 0 is used"_s);
        row("number-not-a-number", disk + u"=nan"_s, u" is not at least 1 percent; nan is used"_s);
        const auto flag = u"hosting/db_limit_read_only"_s;
        row("flag-true", flag + u"=TRUE"_s);
        row("flag-zero", flag + u"=0"_s);
        row("flag-no", flag + u"=no"_s, u" is neither true nor false; true is used"_s);
        row("flag-empty", flag + u"="_s, u" is neither true nor false; false is used"_s);
        const auto security = u"notify/smtp_security"_s;
        row("word", security + u"=starttls"_s);
        row("word-upper-case", security + u"=STARTTLS"_s, u" is none of ssl, starttls, none; none is used"_s);
        row("text", u"notify/smtp_password=12 3"_s);
        row("text-format", u"notify/webhook_format=carrier pigeon"_s);
        row("list", u"health/services=a, b"_s);
    }
    void problems()
    {
        QFETCH(const QString, line);
        const QSettings settings(fileOf(line), QSettings::IniFormat);
        QStringList found;
        const QList<Setting> all = allSettings();
        for (const Setting& setting : all)
            found.append(settingProblem(settings, setting));
        found.removeAll(QString());
        QTEST(found.join(u'\n'), "problem");
    }

    void shownValuesAreShort()
    {
        const QString shown(80, u'x');
        const Setting& disk = settingOf(kHealthSettings, "health/disk_alert_pct");
        for (const QString& more : {u""_s, u"x"_s}) {
            const QSettings settings(fileOf(u"health/disk_alert_pct="_s + shown + more),
                                     QSettings::IniFormat);
            QCOMPARE(settingProblem(settings, disk),
                     u"health/disk_alert_pct="_s + shown + u" is no number; 0 is used"_s);
        }
    }

    void listsInPlaceOfNumbers()
    {
        const QSettings settings(fileOf(u"health/disk_alert_pct=90,5"_s), QSettings::IniFormat);
        QCOMPARE(settingProblem(settings, settingOf(kHealthSettings, "health/disk_alert_pct")),
                 u"health/disk_alert_pct=90, 5 is no number; 0 is used"_s);
    }

    void oneWarningForEachKey()
    {
        const QSettings settings(fileOf(u"collect/interval_seconds=soon\n[hosting]\nusage_minutes=-1"_s),
                                 QSettings::IniFormat);
        QTest::ignoreMessage(QtWarningMsg,
                             "settings: collect/interval_seconds=soon is no whole number; 0 is used");
        QTest::ignoreMessage(
            QtWarningMsg,
            "settings: hosting/usage_minutes=-1 is not from 1 to 2147483647 minutes; -1 is used");
        checkSettings(settings);
    }
};

QTEST_GUILESS_MAIN(tst_Settings)
#include "tst_Settings.moc"
