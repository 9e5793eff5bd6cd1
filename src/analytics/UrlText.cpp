#include "analytics/UrlText.h"

#include <QByteArray>
#include <QList>
#include <QUrl>

#include <algorithm>
#include <array>
#include <charconv>

using namespace Qt::Literals::StringLiterals;

namespace tarn::analytics {

namespace {

/// Of a name as it is sent, with a last dot. A character has four bytes at most, and each can be sent as
/// "%xx".
constexpr qsizetype kMaxSentBytes = (kMaxNameLength + 1) * 4 * 3;

/// Combining marks in a row on one letter. Names have two or three. Qt takes quadratic time to sort them.
constexpr int kMaxMarks = 8;

/// The longest number that Qt reads. It takes quadratic time for a number.
constexpr qsizetype kMaxPlainNumberLength = 64;

constexpr QByteArrayView kByteOrderMark = "\xef\xbb\xbf";

constexpr signed char kNoDigit = -1;

constexpr std::array<signed char, 256> kHexDigits = [] {
    std::array<signed char, 256> digits = {};
    digits.fill(kNoDigit);
    for (std::size_t i = 0; i < 10; ++i)
        digits['0' + i] = static_cast<signed char>(i);
    for (std::size_t i = 0; i < 6; ++i) {
        digits['a' + i] = static_cast<signed char>(10 + i);
        digits['A' + i] = static_cast<signed char>(10 + i);
    }
    return digits;
}();

int hexDigit(char c)
{
    return kHexDigits[static_cast<unsigned char>(c)];
}

/// True when the text from @p at to @p end begins with "%" and two hexadecimal digits.
bool isEscape(const char* at, const char* end)
{
    return end - at >= 3 && *at == '%' && hexDigit(at[1]) >= 0 && hexDigit(at[2]) >= 0;
}

char escapedByte(const char* at)
{
    return static_cast<char>(hexDigit(at[1]) * 16 + hexDigit(at[2]));
}

QByteArray decodedBytes(QByteArrayView text)
{
    QByteArray bytes(text.size(), Qt::Uninitialized);
    char* out = bytes.data();
    const char* at = text.data();
    const char* const end = at + text.size();
    while (at != end) {
        const bool escape = isEscape(at, end);
        *out++ = escape ? escapedByte(at) : *at;
        at += escape ? 3 : 1;
    }
    bytes.truncate(out - bytes.constData());
    return bytes;
}

/// Compares the name of the item from @p at to @p end with @p key, its escapes resolved. Returns where the
/// name ends, or null when it is another one.
const char* endOfName(const char* at, const char* end, QByteArrayView key)
{
    for (const char wanted : key) {
        if (at == end)
            return nullptr;
        const bool escape = isEscape(at, end);
        if ((escape ? escapedByte(at) : *at) != wanted)
            return nullptr;
        at += escape ? 3 : 1;
    }
    return at == end || *at == '=' ? at : nullptr;
}

bool isLetter(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

bool isDigit(char c)
{
    return c >= '0' && c <= '9';
}

/// RFC 3986, section 3.1.
bool isScheme(QByteArrayView text)
{
    return !text.isEmpty() && isLetter(text.front()) && std::all_of(text.begin(), text.end(), [](char c) {
        return isLetter(c) || isDigit(c) || c == '+' || c == '-' || c == '.';
    });
}

/// The host in "user@host:port".
QByteArrayView hostOfAuthority(QByteArrayView authority)
{
    const QByteArrayView place = authority.sliced(authority.indexOf('@') + 1);
    const qsizetype colon = place.lastIndexOf(':');
    const bool isInBrackets =
        place.startsWith('[') && place.first(std::max<qsizetype>(colon, 0)).indexOf(']') < 0;
    return colon < 0 || isInBrackets ? place : place.first(colon);
}

/// True for a label of which QUrl would change nothing but the case. Labels such as "xn--", "-a" and "a_b"
/// follow Qt's rules.
bool isPlainLabel(QByteArrayView label)
{
    return !label.isEmpty() && label.size() <= kMaxLabelLength && label.front() != '-' && label.back() != '-'
           && label.indexOf("--") < 0 && std::all_of(label.begin(), label.end(), [](char c) {
                  return isLetter(c) || isDigit(c) || c == '-';
              });
}

/// True for the kind of name that nearly all referrers have. QUrl would take time and change only the case.
/// The last label must begin with a letter: with a digit it may belong to an address.
bool isPlainName(QByteArrayView name)
{
    if (name.size() > kMaxNameLength)
        return false;
    for (;;) {
        const qsizetype dot = name.indexOf('.');
        if (!isPlainLabel(name.first(dot < 0 ? name.size() : dot)))
            return false;
        if (dot < 0)
            return isLetter(name.front());
        name = name.sliced(dot + 1);
    }
}

/// The full stops that end a label (RFC 3490, section 3.1).
bool isDot(uint c)
{
    return c == '.' || c == 0x3002 || c == 0xff0e || c == 0xff61;
}

/// False when @p host has too many characters for a name, or too many marks on a letter. Each character in
/// Unicode takes at least one of the ASCII form.
bool canBeName(QByteArrayView host)
{
    if (host.size() > kMaxSentBytes)
        return false;
    const QList<uint> name = percentDecoded(host).toUcs4();
    int marks = 0;
    qsizetype inLabel = 0;
    for (const uint c : name) {
        inLabel = isDot(c) ? 0 : inLabel + 1;
        marks = QChar::combiningClass(c) == 0 ? 0 : marks + 1;
        if (inLabel > kMaxLabelLength || marks > kMaxMarks)
            return false;
    }
    return name.size() <= kMaxNameLength + (!name.isEmpty() && isDot(name.back()) ? 1 : 0);
}

bool isAscii(const QString& text)
{
    return std::all_of(text.begin(), text.end(), [](QChar c) { return c.unicode() < 0x80; });
}

qsizetype lengthInAscii(const QString& name)
{
    const qsizetype length = isAscii(name) ? name.size() : QUrl::toAce(name).size();
    return name.endsWith(u'.') ? length - 1 : length;
}

} // namespace

UrlParts splitUrl(QByteArrayView url)
{
    if (url.startsWith(kByteOrderMark))
        url = url.sliced(kByteOrderMark.size());
    UrlParts parts;
    if (const qsizetype hash = url.indexOf('#'); hash >= 0)
        url = url.first(hash);
    if (const qsizetype mark = url.indexOf('?'); mark >= 0) {
        parts.query = url.sliced(mark + 1);
        url = url.first(mark);
    }
    if (const qsizetype colon = url.indexOf(':'); colon >= 0 && isScheme(url.first(colon))) {
        parts.scheme = url.first(colon);
        url = url.sliced(colon + 1);
    }
    if (url.startsWith("//")) {
        url = url.sliced(2);
        const qsizetype slash = url.indexOf('/');
        const QByteArrayView authority = url.first(slash < 0 ? url.size() : slash);
        parts.host = hostOfAuthority(authority);
        url = url.sliced(authority.size());
    }
    parts.path = url;
    return parts;
}

QString hostName(QByteArrayView host)
{
    if (isPlainName(host))
        return QString::fromLatin1(host).toLower();
    if (host.isEmpty() || !canBeName(host))
        return {};
    // The empty user and the empty port keep QUrl from taking a part of the host for one of them.
    const QString name = unicodeName(
        QUrl(u"//@"_s + QString::fromUtf8(host) + u':', QUrl::TolerantMode).host(QUrl::FullyDecoded));
    return lengthInAscii(name) > kMaxNameLength ? QString() : name.toLower();
}

QString asciiName(const QString& name)
{
    return isAscii(name) || name.size() > kMaxNameLength ? QString() : QString::fromLatin1(QUrl::toAce(name));
}

QString unicodeName(const QString& name)
{
    if (!name.contains("xn--"_L1, Qt::CaseInsensitive) || name.size() > kMaxNameLength + 1)
        return name;
    // fromAce() takes ASCII only, and other labels may be in Unicode already.
    const QByteArray ascii = isAscii(name) ? name.toLatin1() : QUrl::toAce(name);
    const QString decoded = QUrl::fromAce(ascii, QUrl::IgnoreIDNWhitelist);
    return decoded.isEmpty() ? name : decoded;
}

QString percentDecoded(QByteArrayView text)
{
    return text.contains('%') ? QString::fromUtf8(decodedBytes(text)) : QString::fromUtf8(text);
}

QByteArrayView queryItem(QByteArrayView query, QByteArrayView key)
{
    const char* at = query.data();
    const char* const end = at + query.size();
    for (;;) {
        // A loop, since a search for bytes costs more to begin. A query can have thousands of empty items.
        const char* next = at;
        // NOLINTNEXTLINE(clang-analyzer-core.NullDereference): a query without bytes is at its end already
        while (next != end && *next != '&')
            ++next;
        if (const char* equals = endOfName(at, next, key))
            return equals == next ? QByteArrayView() : QByteArrayView(equals + 1, next);
        if (next == end)
            return {};
        at = next + 1;
    }
}

double queryNumber(QByteArrayView query, QByteArrayView key)
{
    const QString text = percentDecoded(queryItem(query, key));
    if (text.size() <= kMaxPlainNumberLength)
        return text.toDouble();
    QByteArray digits = text.trimmed().toLatin1();
    if (digits.startsWith('+'))
        digits.remove(0, 1);
    if (digits.isEmpty() || (digits.front() != '.' && !isDigit(digits.front())))
        return 0;
    double value = 0;
    const char* const end = digits.constData() + digits.size();
    const auto [behind, error] = std::from_chars(digits.constData(), end, value);
    return error == std::errc() && behind == end ? value : 0;
}

} // namespace tarn::analytics
