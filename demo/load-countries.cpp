// Fills the country table from a file, as the collector does from a download once a month.

#include "analytics/GeoIp.h"
#include "common/Config.h"
#include "common/Db.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QSettings>
#include <QTextStream>

using namespace Qt::Literals::StringLiterals;

int main(int argc, char** argv)
{
    const QCoreApplication application(argc, argv);
    QCoreApplication::setApplicationName(u"load-countries"_s);

    QCommandLineParser parser;
    parser.addHelpOption();
    tarn::addConfigOption(parser);
    parser.addPositionalArgument(u"file"_s, u"DB-IP's country file, plain or ending in .gz"_s);
    parser.process(application);
    if (parser.positionalArguments().size() != 1)
        parser.showHelp(2);
    const QString configPath = tarn::configPath(parser);
    if (configPath.isEmpty())
        return 1;
    const QSettings settings(configPath, QSettings::IniFormat);
    if (!tarn::db::open(settings, QCoreApplication::applicationName()))
        return 1;

    bool ok = false;
    QTextStream(stdout) << tarn::analytics::updateGeoIp(parser.positionalArguments().first(), &ok) << '\n';
    return ok ? 0 : 1;
}
