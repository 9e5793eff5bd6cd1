// The parts of addresses that strangers write: referrers, targets, pages and properties. Bytes in, texts out;
// pure functions for any thread. Each takes time in proportion to its input. Qt's own classes do not: QUrl
// normalises host names in quadratic time, and gets only texts that can be a host name.
#pragma once

#include <QByteArrayView>
#include <QString>

namespace tarn::analytics {

/// Lengths that a name has at most in its ASCII form (RFC 1035, section 2.3.4), the name's without a last
/// dot.
constexpr qsizetype kMaxNameLength = 253;
constexpr qsizetype kMaxLabelLength = 63;

/// The pieces of an address, as sent; those that it lacks are empty:
///
///     https://user@www.example.org:8080/a/b?q=x&p=y#top
///     scheme       host                path query
struct UrlParts
{
    QByteArrayView scheme; ///< in the case in which it was sent
    QByteArrayView host;   ///< without user and port; not necessarily a name, see hostName()
    QByteArrayView path;
    QByteArrayView query;
};

/// Takes @p url apart as QUrl does in tolerant mode (RFC 3986, section 3). The parts point into @p url.
UrlParts splitUrl(QByteArrayView url);

/// The host in lower case, with its percent-encoding resolved and its labels in Unicode ("xn--mller-kva.eu"
/// is "müller.eu") whatever the top-level domain. Numbers in the forms of an address become that address, and
/// brackets around one are dropped. Empty when @p host, as it stands in a URL, can be no host.
QString hostName(QByteArrayView host);

/// The ASCII form of a name that holds other characters ("xn--mller-kva.eu"); empty when it holds none, or
/// has no such form.
QString asciiName(const QString& name);

/// @p name with those of its labels in Unicode that are well-formed "xn--" labels; unchanged without any.
/// Only the labels of names as long as a name can be are looked at.
QString unicodeName(const QString& name);

/// @p text with its percent-encoding resolved, read as UTF-8. An escape without two hexadecimal digits stays
/// as sent, and so does a plus sign; bytes that are no UTF-8 become U+FFFD.
QString percentDecoded(QByteArrayView text);

/// The value of the first item named @p key in a query ("a=1&b=2", without its question mark), as sent. Empty
/// when there is none. Names are compared with their percent-encoding resolved.
QByteArrayView queryItem(QByteArrayView query, QByteArrayView key);

/// The first item named @p key as a number, as QString::toDouble() reads it ("nan" is one); 0 when it is
/// none.
double queryNumber(QByteArrayView query, QByteArrayView key);

} // namespace tarn::analytics
