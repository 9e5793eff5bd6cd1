#include "common/MailMessage.h"

#include "common/NotifyMessage.h"
#include "common/NotifyText.h"

#include <QDateTime>
#include <QLocale>
#include <QStringList>
#include <QUuid>

#include <algorithm>
#include <cstdlib>

using namespace Qt::Literals::StringLiterals;

namespace tarn::notify {

namespace {

constexpr qsizetype kBase64Columns = 76;

/// A line of a mail without its end (RFC 5322, 2.1.1).
constexpr qsizetype kMaxHeaderBytes = 998;
/// Lines of a header that is folded.
constexpr qsizetype kFoldedBytes = 76;
/// Of the subject in each encoded word, when there are several (RFC 2047, 2: a line of them has 76 bytes).
constexpr qsizetype kWordBytes = 39;

/// "Sat, 15 Jun 2024 09:30:00 +0200".
QByteArray mailDate(const QDateTime& now)
{
    const int minutes = std::abs(now.offsetFromUtc()) / 60;
    return QLocale::c().toString(now, u"ddd, dd MMM yyyy HH:mm:ss "_s).toLatin1()
           + (now.offsetFromUtc() < 0 ? '-' : '+')
           + QByteArray::number(minutes / 60 * 100 + minutes % 60).rightJustified(4, '0');
}

QByteArray base64Lines(const QByteArray& bytes)
{
    const QByteArray encoded = bytes.toBase64();
    QByteArray lines;
    for (qsizetype start = 0; start < encoded.size(); start += kBase64Columns)
        lines += encoded.mid(start, kBase64Columns) + "\r\n";
    return lines;
}

/// "To: one@example.org, two@example.org".
QByteArray recipientsHeader(const QStringList& recipients)
{
    QByteArray line = "To: " + recipients.join(u", "_s).toUtf8();
    if (line.size() <= kMaxHeaderBytes)
        return line;
    QByteArray folded = "To:";
    qsizetype column = folded.size();
    for (const QString& recipient : recipients) {
        const QByteArray address = ' ' + recipient.toUtf8() + (&recipient == &recipients.last() ? "" : ",");
        if (column + address.size() > kFoldedBytes) {
            folded += "\r\n";
            column = 0;
        }
        folded += address;
        column += address.size();
    }
    return folded;
}

QByteArray encodedWord(const QByteArray& text)
{
    return "=?UTF-8?B?" + text.toBase64() + "?=";
}

/// Where the word that begins at @p start ends at the latest, between two characters of the UTF-8 @p text.
qsizetype wordEnd(const QByteArray& text, qsizetype start)
{
    const auto continues = [](char byte) { return (static_cast<unsigned char>(byte) & 0xc0U) == 0x80U; };
    qsizetype end = std::min(start + kWordBytes, text.size());
    while (end < text.size() && continues(text.at(end)))
        --end;
    return end;
}

/// One encoded word (RFC 2047) if that fits: many mail readers show it better than several.
QByteArray subjectHeader(const QString& subject)
{
    const QByteArray text = subject.toUtf8();
    QByteArray line = "Subject: " + encodedWord(text);
    if (line.size() <= kMaxHeaderBytes)
        return line;
    QByteArray folded = "Subject:";
    for (qsizetype start = 0; start < text.size(); start = wordEnd(text, start)) {
        folded += (start == 0 ? " " : "\r\n ");
        folded += encodedWord(text.mid(start, wordEnd(text, start) - start));
    }
    return folded;
}

} // namespace

QByteArray mailMessage(const Config& config, const QString& subject, const QString& text,
                       const QDateTime& now, const QUuid& id)
{
    const QByteArray from = config.mailFrom.toUtf8();
    const QByteArray domain = from.mid(from.indexOf('@') + 1);
    return "From: Tarnhold <" + from + ">\r\n" + recipientsHeader(config.mailTo) + "\r\n"
           + subjectHeader(controlsBlanked(subject)) + "\r\nDate: " + mailDate(now) + "\r\nMessage-ID: <"
           + id.toByteArray(QUuid::WithoutBraces) + '@' + domain
           + ">\r\nMIME-Version: 1.0\r\nContent-Type: text/plain; charset=utf-8\r\n"
             "Content-Transfer-Encoding: base64\r\n\r\n"
           + base64Lines(text.toUtf8());
}

} // namespace tarn::notify
