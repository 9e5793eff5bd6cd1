#include "analytics/Classifier.h"
#include "report/SiteNames.h"

#include <QTest>

using namespace Qt::Literals::StringLiterals;
using tarn::report::isAiCrawler;

/// The report sets crawlers apart by the names that the collector gives them.
class tst_AiCrawlers : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void areNamedAsTheCollectorDoes_data()
    {
        QTest::addColumn<QByteArray>("agent");
        QTest::addColumn<bool>("ai");
        for (const char* token : {"GPTBot", "OAI-SearchBot", "ChatGPT-User", "ClaudeBot", "Claude-User",
                                  "PerplexityBot", "CCBot", "Bytespider", "Amazonbot", "meta-externalagent"})
            QTest::newRow(token) << QByteArray(token) << true;
        for (const char* token : {"Googlebot", "bingbot", "AhrefsBot", "curl/8.0", "facebookexternalhit"})
            QTest::newRow(token) << QByteArray(token) << false;
    }
    void areNamedAsTheCollectorDoes()
    {
        QFETCH(const QByteArray, agent);
        const QString name =
            tarn::analytics::classifyClient(("Mozilla/5.0 (compatible; " + agent + "/1.0)")).bot;
        QVERIFY(!name.isEmpty());
        QTEST(isAiCrawler(name), "ai");
    }
};

QTEST_GUILESS_MAIN(tst_AiCrawlers)
#include "tst_AiCrawlers.moc"
