// Where the settings file is: the command line, the environment, the fixed default.
// All programs of the suite find it this way. Reading the file is left to each reader of a setting.
#pragma once

#include <QString>

class QCommandLineParser;

namespace tarn {

/// Adds the option `--config <file>` to @p parser.
void addConfigOption(QCommandLineParser& parser);

/// The path of the settings file, unchanged as it was given: the option `--config`, else the environment
/// variable TARN_CONFIG, else "/etc/tarnhold/tarnhold.ini". The first that is not empty counts: if it names
/// no regular file, that is an error (logged) and the result is empty; the next one is not tried. To be
/// called after @p parser has processed the arguments.
QString configPath(const QCommandLineParser& parser);

} // namespace tarn
