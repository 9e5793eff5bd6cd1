#include "common/Config.h"

#include <QCommandLineParser>
#include <QFileInfo>

using namespace Qt::Literals::StringLiterals;

namespace tarn {

namespace {

const auto kOption = u"config"_s;
const auto kDefaultPath = u"/etc/tarnhold/tarnhold.ini"_s;

} // namespace

void addConfigOption(QCommandLineParser& parser)
{
    parser.addOption({kOption, u"Configuration file."_s, u"file"_s});
}

QString configPath(const QCommandLineParser& parser)
{
    QString path = parser.value(kOption);
    if (path.isEmpty())
        path = qEnvironmentVariable("TARN_CONFIG");
    if (path.isEmpty())
        path = kDefaultPath;
    // No fall-back to the next source: an operator who names a file wants that file, not a surprise.
    if (QFileInfo(path).isFile())
        return path;
    qCritical("config file not found: %s", qPrintable(path));
    return {};
}

} // namespace tarn
