#include "common/Config.h"

#include <QCommandLineParser>
#include <QDir>
#include <QFile>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>

using namespace Qt::Literals::StringLiterals;

class tst_Config : public QObject
{
    Q_OBJECT

private:
    /// The path found with these arguments behind the program's name.
    static QString found(const QStringList& arguments)
    {
        QCommandLineParser parser;
        tarn::addConfigOption(parser);
        parser.process(QStringList{u"tarn-collect"_s} + arguments);
        return tarn::configPath(parser);
    }

    QString makeFile(const QString& name) const
    {
        const QString path = m_folder.filePath(name);
        QFile file(path);
        return file.open(QIODevice::WriteOnly) ? path : QString();
    }

    static void expectNotFound(const QString& path)
    {
        QTest::ignoreMessage(QtCriticalMsg, qPrintable(u"config file not found: "_s + path));
    }

    QTemporaryDir m_folder;

private Q_SLOTS:
    void init()
    {
        QTest::failOnWarning(QRegularExpression(u".?"_s));
        qunsetenv("TARN_CONFIG");
    }

    void optionIsTaken()
    {
        const QString path = makeFile(u"by-option.ini"_s);
        qputenv("TARN_CONFIG", makeFile(u"by-environment.ini"_s).toLocal8Bit());
        QCOMPARE(found({u"--config"_s, path}), path);
    }

    void environmentIsTakenWithoutOption()
    {
        const QString path = makeFile(u"by-environment.ini"_s);
        qputenv("TARN_CONFIG", path.toLocal8Bit());
        QCOMPARE(found({}), path);
    }

    void pathIsNotMadeAbsolute()
    {
        makeFile(u"relative.ini"_s);
        const QString before = QDir::currentPath();
        QVERIFY(QDir::setCurrent(m_folder.path()));
        QCOMPARE(found({u"--config"_s, u"./relative.ini"_s}), u"./relative.ini"_s);
        QDir::setCurrent(before);
    }

    void missingOptionFileIsNoReasonToLookElsewhere()
    {
        qputenv("TARN_CONFIG", makeFile(u"by-environment.ini"_s).toLocal8Bit());
        const QString missing = m_folder.filePath(u"missing.ini"_s);
        expectNotFound(missing);
        QVERIFY(found({u"--config"_s, missing}).isNull());
    }

    void missingEnvironmentFileIsNoReasonToLookElsewhere()
    {
        const QString missing = m_folder.filePath(u"missing.ini"_s);
        qputenv("TARN_CONFIG", missing.toLocal8Bit());
        expectNotFound(missing);
        QVERIFY(found({}).isNull());
    }

    void directoryIsNotFound()
    {
        expectNotFound(m_folder.path());
        QVERIFY(found({u"--config"_s, m_folder.path()}).isNull());
    }

    void emptyOptionAndEnvironmentCountAsUnset()
    {
        const auto standard = u"/etc/tarnhold/tarnhold.ini"_s;
        const bool installed = QFileInfo(standard).isFile(); // on a machine where the collector is in use
        qputenv("TARN_CONFIG", "");
        if (!installed)
            expectNotFound(standard);
        QCOMPARE(found({u"--config"_s, QString()}), installed ? standard : QString());
    }

    void helpNamesOptionAndValue()
    {
        QCommandLineParser parser;
        tarn::addConfigOption(parser);
        const QString help = parser.helpText();
        QVERIFY2(help.contains(QRegularExpression(u"--config <file>\\s+Configuration file\\."_s)),
                 qPrintable(help));
    }
};

QTEST_GUILESS_MAIN(tst_Config)
#include "tst_Config.moc"
