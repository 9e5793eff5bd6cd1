// What a request tells about its sender: the client from the user agent, the traffic source from referrer and
// target, and whether the request is a page view at all. Pure functions over constant tables, for any thread.
#pragma once

#include <QByteArray>
#include <QString>

namespace tarn::analytics {

struct Client
{
    QString bot;     ///< display name of the crawler, "Other crawler", "No user agent"; empty for a person
    QString device;  ///< "tablet", "mobile" or "desktop"
    QString browser; ///< browser family, or "Other"
    QString os;      ///< operating system, or "Other"
};

struct Source
{
    QString kind; ///< "campaign", "direct", "internal", "search", "social", "ai", "email" or "referral"
    QString name; ///< campaign source, service or referring host; empty for "direct" and "internal"
    QString searchTerms; ///< what was searched for, or the campaign's name; often empty
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
