// The line parser against one regular expression that takes the same line apart.

#include "Measure.h"
#include "analytics/LogParser.h"

#include <QRegularExpression>

using namespace Qt::Literals::StringLiterals;
using namespace tarn;

int main()
{
    constexpr int kLines = 100'000;
    const QByteArray line =
        "192.0.2.17 - - [10/Oct/2024:13:55:36 +0200] \"GET /products/shoes?size=42 HTTP/1.1\" 200 "
        "23261 \"https://www.example.org/products\" \"Mozilla/5.0 (X11; Linux x86_64) "
        "AppleWebKit/537.36 (KHTML, like Gecko) Chrome/120.0.0.0 Safari/537.36\" 1234";
    const QRegularExpression expression(
        u"^(\\S+) \\S+ \\S+ \\[([^\\]]+)\\] \"([^\"]*+)\" (\\d+) (\\d+|-) \"([^\"]*+)\" \"([^\"]*+)\"(?: (\\d+))?$"_s);

    qint64 sum = 0;
    const auto byExpression = [&] {
        for (int i = 0; i < kLines; ++i) {
            const QRegularExpressionMatch match = expression.match(QString::fromLatin1(line));
            sum += match.captured(4).toInt() + match.captured(7).size();
        }
    };
    const auto byParser = [&] {
        for (int i = 0; i < kLines; ++i) {
            const std::optional<analytics::LogLine> entry = analytics::parseCombined(line);
            sum += entry->status + entry->userAgent.size();
        }
    };
    bench::compare(
        {
            {u"regular expression, without the time"_s, byExpression},
            {u"parseCombined"_s,                        byParser    }
    },
        7, kLines, "lines/s");
    return sum == 0;
}
