#include "analytics/ClassifierReference.h"

#include <QList>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <optional>

using namespace tarn::analytics;
using namespace Qt::Literals::StringLiterals;

namespace {

void expect(bool holds, const char* what)
{
    if (holds)
        return;
    std::fprintf(stderr, "differs from the reference: %s\n", what);
    std::abort();
}

void checkClient(const QByteArray& userAgent)
{
    const Client client = classifyClient(userAgent);
    const Client expected = reference::classifyClient(userAgent);
    expect(client.bot == expected.bot, "bot");
    expect(client.device == expected.device, "device");
    expect(client.browser == expected.browser, "browser");
    expect(client.os == expected.os, "os");
}

void checkSource(const QByteArray& referrer, const QByteArray& target, const QString& site)
{
    const Source source = classifySource(referrer, target, site);
    const Source expected = reference::classifySource(referrer, target, site);
    expect(source.kind == expected.kind, "kind");
    expect(source.name == expected.name, "name");
    expect(source.searchTerms == expected.searchTerms, "searchTerms");
}

} // namespace

/// The input is a user agent, a referrer, a target and a site, a line each; what is missing is empty.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const QByteArrayView input(data, static_cast<qsizetype>(size));
    const QList<QByteArray> lines = input.toByteArray().split('\n');
    checkClient(lines.value(0));
    checkSource(lines.value(1), lines.value(2), QString::fromUtf8(lines.value(3)));
    const QString path = QString::fromUtf8(lines.value(2));
    expect(isPage("GET", path) == reference::isPage("GET", path), "isPage");
    return 0;
}
