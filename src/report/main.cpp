// tarn-report: a folder of static pages about the host and its sites, made from the database.

#include "common/Config.h"
#include "common/Db.h"
#include "report/HostPage.h"
#include "report/Page.h"
#include "report/SitePage.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDir>
#include <QSaveFile>
#include <QSettings>
#include <QSysInfo>

#include <optional>

using namespace Qt::Literals::StringLiterals;
using namespace tarn::report;

namespace {

constexpr int kSchemaVersion = 11;
constexpr int kDefaultDays = 30;
/// The period before is read as well, so that twice as many days have to be held.
constexpr int kMostDays = 366;

struct Options
{
    QString config;
    QStringList hosts; ///< empty: all sites
    int days = kDefaultDays;
    QString folder;
};

/// What the command line says; nothing when it makes no sense (logged).
std::optional<Options> optionsOf(const QCoreApplication& application)
{
    QCommandLineParser parser;
    parser.setApplicationDescription(u"Writes static pages about the host and its sites."_s);
    parser.addHelpOption();
    tarn::addConfigOption(parser);
    parser.addOption({u"site"_s,
                      u"Site to write the page of, beside the host's; can be repeated (all sites)."_s,
                      u"host"_s});
    parser.addOption({u"days"_s,
                      u"Days to report, today included, 1 to %1 (%2)."_s.arg(kMostDays).arg(kDefaultDays),
                      u"number"_s, QString::number(kDefaultDays)});
    parser.addOption({u"output"_s, u"Folder to write to, made if it is missing (tarn-report)."_s, u"folder"_s,
                      u"tarn-report"_s});
    parser.process(application);

    Options options;
    bool isNumber = false;
    options.days = parser.value(u"days"_s).toInt(&isNumber);
    if (!isNumber || options.days < 1 || options.days > kMostDays) {
        qCritical("--days wants a number from 1 to %d, not %s", kMostDays,
                  qPrintable(parser.value(u"days"_s)));
        return std::nullopt;
    }
    if (!parser.positionalArguments().isEmpty()) {
        qCritical("%s is no option; the folder is named with --output",
                  qPrintable(parser.positionalArguments().constFirst()));
        return std::nullopt;
    }
    options.hosts = parser.values(u"site"_s);
    options.folder = parser.value(u"output"_s);
    options.config = tarn::configPath(parser);
    return options.config.isEmpty() ? std::nullopt : std::optional(options);
}

/// Puts @p content in the place of the file @p name at once: whoever opens it gets the old page or the new
/// one.
bool write(const QString& folder, const QString& name, const QByteArray& content)
{
    QSaveFile file(QDir(folder).filePath(name));
    if (file.open(QIODevice::WriteOnly) && file.write(content) == content.size() && file.commit())
        return true;
    qCritical("cannot write %s: %s", qPrintable(file.fileName()), qPrintable(file.errorString()));
    return false;
}

bool writeSite(const Options& options, const Site& site, const Period& period, const Now& now)
{
    std::optional<SiteFigures> figures;
    {
        const Reading reading;
        figures = reading.begun() ? readSite(site, period) : std::nullopt;
    }
    return figures && write(options.folder, siteFileName(site.host), sitePage(*figures, now));
}

QString hostName(const QSettings& settings)
{
    return settings.value(u"notify/host_name"_s, QSysInfo::machineHostName()).toString();
}

bool writeAll(const Options& options, const QSettings& settings)
{
    std::optional<Now> now;
    std::optional<QList<Site>> sites;
    std::optional<HostFigures> host;
    {
        const Reading reading;
        if (reading.begun() && (now = readNow()) && (sites = readSites(options.hosts)))
            host = readHost(hostName(settings), *now, {now->today.addDays(1 - options.days), now->today});
    }
    if (!host)
        return false;
    if (!QDir().mkpath(options.folder)) {
        qCritical("cannot make the folder %s", qPrintable(options.folder));
        return false;
    }
    for (const Site& site : std::as_const(*sites)) {
        if (!writeSite(options, site, host->period, *now))
            return false;
    }
    // Last, so that what it links to is there.
    return write(options.folder, u"index.html"_s, hostPage(*host));
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication application(argc, argv);
    QCoreApplication::setApplicationName(u"tarn-report"_s);
    QCoreApplication::setApplicationVersion(u"0.1"_s);

    const std::optional<Options> options = optionsOf(application);
    if (!options)
        return 1;
    const QSettings settings(options->config, QSettings::IniFormat);
    if (!tarn::db::open(settings, QCoreApplication::applicationName()))
        return 1;
    if (tarn::db::schemaVersion() != kSchemaVersion) {
        qCritical("database schema is not at version %d; run tarn-admin migrate", kSchemaVersion);
        return 1;
    }
    return writeAll(*options, settings) ? 0 : 1;
}
