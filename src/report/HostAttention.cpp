#include "report/HostAttention.h"

#include "report/AlertNames.h"
#include "report/Format.h"
#include "report/Page.h"

using namespace Qt::Literals::StringLiterals;

namespace tarn::report {

namespace {

/// Accounts that are told of as near their limit; the others are in the table.
constexpr qsizetype kAttentionAccounts = 20;
/// Of the word that says what a point is about; the kinds that the collector knows are shorter.
constexpr qsizetype kKindCharacters = 24;

/// A point of the list at the top.
void point(Html& html, bool bad, const QString& what, const QString& text, const QString& more)
{
    const auto item = html.element("li", bad ? CssClass("bad") : CssClass("near"));
    {
        const auto kind = html.element("b");
        html.leaf("bdi", shortened(what, kKindCharacters));
    }
    const auto said = html.element("span");
    html.leaf("bdi", shortened(text, kTitleCharacters));
    if (!more.isEmpty())
        html.leaf("span", u" · "_s + more, "dim");
}

QString useOf(const Account& account)
{
    QStringList uses;
    if (account.diskLimit > 0 && account.disk.value_or(0) >= kNearLimit * account.diskLimit)
        uses.append(u"disk %1 of %2"_s.arg(bytes(*account.disk), bytes(account.diskLimit)));
    if (account.databaseLimit > 0 && account.database.value_or(0) >= kNearLimit * account.databaseLimit)
        uses.append(u"database %1 of %2"_s.arg(bytes(*account.database), bytes(account.databaseLimit)));
    return uses.join(u", "_s);
}

/// Alerts that are open, beginning with what stops everything else from being known.
void openAlerts(Html& html, const HostFigures& figures)
{
    const auto secondsAgo = [&figures](qint64 seconds) {
        return duration(static_cast<double>(figures.now.seconds - seconds));
    };
    if (!figures.latest) {
        point(html, true, u"Collector"_s, u"There is no sample of the host's health"_s,
              u"is tarn-collect running?"_s);
    } else if (figures.now.seconds - figures.latest->seconds >= kBehindSeconds) {
        point(html, true, u"Collector"_s, u"No sample for "_s + secondsAgo(figures.latest->seconds),
              u"is tarn-collect running? The latest is of "_s + figures.latest->minute);
    }
    for (const Alert& alert : figures.open) {
        point(html, true, alertName(alert.kind), alert.message,
              u"for %1, since %2"_s.arg(secondsAgo(alert.openedSeconds), alert.opened));
    }
}

void nearLimits(Html& html, const HostFigures& figures)
{
    qsizetype told = 0;
    for (const Account& account : figures.accounts.listed) {
        if (account.share() < kNearLimit || told++ >= kAttentionAccounts)
            break;
        point(html, account.share() >= 1, account.share() >= 1 ? u"Over limit"_s : u"Near limit"_s,
              account.domain, useOf(account));
    }
}

void behind(Html& html, const HostFigures& figures)
{
    for (const Behind& log : figures.sources.listed) {
        point(html, true, log.missing ? u"Log missing"_s : u"Log behind"_s, log.path,
              u"%1, %2"_s.arg(log.missing ? u"the file is not there"_s
                                          : bytes(static_cast<double>(log.unreadBytes)) + u" unread"_s,
                              log.since.isEmpty() ? u"never read"_s : u"last read "_s + log.since));
    }
    if (figures.sources.behind > figures.sources.listed.size()) {
        point(html, true, u"Logs behind"_s,
              u"%1 more"_s.arg(count(figures.sources.behind - figures.sources.listed.size())), {});
    }
}

bool needsAttention(const HostFigures& figures)
{
    return !figures.latest || figures.now.seconds - figures.latest->seconds >= kBehindSeconds
           || !figures.open.isEmpty() || figures.sources.behind > 0 || figures.searchLate
           || (!figures.accounts.listed.isEmpty() && figures.accounts.listed.first().share() >= kNearLimit);
}

} // namespace

void attention(Html& html, const HostFigures& figures)
{
    section(html, u"attention"_s, u"Needs attention"_s);
    if (!needsAttention(figures)) {
        html.leaf("p", u"Nothing. No alert is open, no account is near its limits, every log is read.",
                  "fine");
    } else {
        const auto list = html.element("ul", "attention");
        openAlerts(html, figures);
        nearLimits(html, figures);
        behind(html, figures);
        if (figures.searchLate) {
            point(html, false, u"Search"_s, u"No search figures were fetched for two days"_s,
                  figures.searchResult);
        }
    }
    if (figures.sources.unseen > 0) {
        note(html,
             u"%1 of %2 logs may not be looked at by whoever wrote this page; whether they are read to their "
             u"end is not known."_s.arg(count(figures.sources.unseen), count(figures.sources.count)));
    }
}

} // namespace tarn::report
