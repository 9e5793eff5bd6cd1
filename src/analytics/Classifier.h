// Judges a request: which client sent it (by its user agent), which traffic source led to it (by referrer and
// target), and whether it is a page view. Pure functions over constant tables, for any thread. Each takes
// time in proportion to its input, and none fails.
#pragma once

#include <QByteArray>
#include <QString>

namespace tarn::analytics {

/// Who sent a request. Names come from the tables in Classifier.cpp, never from the request.
struct Client
{
    QString bot;     ///< display name of the crawler, "Other crawler", "No user agent"; empty for a person
    QString device;  ///< "tablet", "mobile" or "desktop"
    QString browser; ///< browser family, or "Other"
    QString os;      ///< operating system, or "Other"
};

/// What led a visitor to a page.
struct Source
{
    QString kind; ///< "campaign", "direct", "internal", "search", "social", "ai", "email" or "referral"
    /// "search", "social", "ai", "email": the service, as the table names it. "campaign": the value of
    /// utm_source, "referral": the referring host, both of any length. Empty for "direct" and "internal".
    QString name;
    QString searchTerms; ///< the words that were searched for, or the campaign's name; often empty
};

/// Never fails: an unknown agent is a person at a desktop with browser and system "Other".
Client classifyClient(QByteArrayView userAgent);

/// Where the visit came from. @p target is the request's path and query as sent, @p host the name of the site
/// whose log this is, in lower case; it tells the site's own pages from other sites.
Source classifySource(QByteArrayView referrer, QByteArrayView target, const QString& host);

/// True for what a person would call a page: not an asset, a feed, or an administrative or machine endpoint.
/// @p path is decoded and without query.
bool isPage(QByteArrayView method, const QString& path);

} // namespace tarn::analytics
