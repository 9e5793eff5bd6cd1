// A log of made-up requests that looks like one of a small site: the same seed gives the same bytes.
#pragma once

#include <QByteArray>
#include <QList>

#include <array>
#include <random>

namespace tarn::bench {

/// Of every so many lines one comes from a visitor that was not seen before.
constexpr int kLinesPerVisitor = 4;

/// Length of each line with its line feed.
constexpr qsizetype kLineBytes = 238;

class LogLines
{
public:
    /// The lines begin at @p start, seconds of a day, and go on by four a second.
    explicit LogLines(quint32 seed, int start = 36'000)
        : m_dice(seed)
        , m_start(start)
    {
    }

    /// The next line, with its line feed.
    QByteArray next()
    {
        if (m_count % kLinesPerVisitor == 0)
            m_visitors[m_newest++ % m_visitors.size()] = {address(), agent()};
        // Mostly of the latest visitors: pages and what belongs to them come together.
        const std::size_t age = roll(100) < 85 ? roll(4) : roll(m_visitors.size());
        const std::size_t newest = m_newest + m_visitors.size() - 1;
        Visitor& visitor = m_visitors[m_count % kLinesPerVisitor == 0 ? newest % m_visitors.size()
                                                                      : (newest - age) % m_visitors.size()];
        if (visitor.ip.isEmpty())
            visitor = m_visitors[newest % m_visitors.size()];
        const int second = m_start + static_cast<int>(m_count++ / 4);
        QByteArray line = visitor.ip + " - - [10/Oct/2024:" + clock(second) + " +0000] \"GET /" + path();
        const QByteArray rest = " HTTP/1.1\" " + status() + ' ' + number(200 + roll(90'000)) + " \""
                                + referrer() + "\" \"" + visitor.agent + "\" " + number(100 + roll(800'000))
                                + '\n';
        while (line.size() + rest.size() < kLineBytes)
            line += "abcdefghijklmnopqrstuvwxyz-0123456789"[roll(37)];
        return line + rest;
    }

private:
    struct Visitor
    {
        QByteArray ip;
        QByteArray agent;
    };

    // Not a distribution of the standard library: those may differ from one library to the next.
    std::size_t roll(std::size_t sides) { return m_dice() % sides; }
    static QByteArray number(std::size_t value) { return QByteArray::number(static_cast<qulonglong>(value)); }

    static QByteArray clock(int second)
    {
        const auto two = [](int part) { return QByteArray::number(part).rightJustified(2, '0'); };
        return two(second / 3600 % 24) + ':' + two(second / 60 % 60) + ':' + two(second % 60);
    }

    QByteArray address()
    {
        return number(1 + roll(222)) + '.' + number(roll(256)) + '.' + number(roll(256)) + '.'
               + number(1 + roll(254));
    }

    /// One of some 400.
    QByteArray agent()
    {
        const QByteArray chrome = number(100 + roll(31)) + ".0.0.0";
        switch (roll(8)) {
        case 0:
            return "Mozilla/5.0 (compatible; Googlebot/2.1; +http://www.google.com/bot.html)";
        case 1:
            return "Mozilla/5.0 (iPhone; CPU iPhone OS 17_" + number(roll(7))
                   + " like Mac OS X) AppleWebKit/605.1.15 (KHTML, like Gecko) Version/17.0 Safari/604.1";
        case 2:
            return "Mozilla/5.0 (X11; Linux x86_64; rv:" + number(90 + roll(40))
                   + ".0) Gecko/20100101 Firefox/1" + number(roll(30)) + ".0";
        case 3:
            return "Mozilla/5.0 (Linux; Android 10; K) AppleWebKit/537.36 (KHTML, like Gecko) Chrome/"
                   + chrome + " Mobile Safari/537.36";
        default:
            return "Mozilla/5.0 (Windows NT 10.0; Win64; x64) AppleWebKit/537.36 (KHTML, like Gecko) Chrome/"
                   + chrome + " Safari/537.36";
        }
    }

    QByteArray path()
    {
        return roll(3) == 0 ? "products/" + number(roll(500)) + "?size=" + number(roll(50)) + "&ref="
                            : "static/" + number(roll(60)) + "/app.js?v=";
    }

    QByteArray status() { return roll(20) == 0 ? "404" : roll(12) == 0 ? "304" : "200"; }

    QByteArray referrer()
    {
        switch (roll(10)) {
        case 0:
            return "-";
        case 1:
            return "https://www.google.com/";
        case 2:
            return "https://news" + number(roll(200)) + ".example.net/";
        default:
            return "https://www.example.org/p/" + number(roll(500));
        }
    }

    std::mt19937 m_dice;
    std::array<Visitor, 64> m_visitors = {};
    std::size_t m_newest = 0;
    std::size_t m_count = 0;
    int m_start;
};

/// @p count lines without their line feeds.
inline QList<QByteArray> logLines(int count, quint32 seed)
{
    LogLines source(seed);
    QList<QByteArray> lines;
    lines.reserve(count);
    for (int i = 0; i < count; ++i)
        lines.append(source.next().chopped(1));
    return lines;
}

} // namespace tarn::bench
