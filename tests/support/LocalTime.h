// Has a child process live at another time of the day.
#pragma once

#include <QDateTime>
#include <QString>

#include <cstdlib>

namespace tarn::test {

/// A time zone, in the notation of POSIX, in which it is @p wanted now.
inline QString zoneWhereItIs(QTime wanted)
{
    using namespace Qt::Literals::StringLiterals;
    // The sign is the other way round there: what is to be added to the local time. At most half a day either
    // way, which every date library takes.
    int behind = wanted.secsTo(QDateTime::currentDateTimeUtc().time());
    if (behind > 43'200)
        behind -= 86'400;
    if (behind < -43'200)
        behind += 86'400;
    const QTime distance = QTime(0, 0).addSecs(std::abs(behind));
    return u"TST%1%2"_s.arg(behind < 0 ? u"-"_s : u"+"_s, distance.toString(u"hh:mm:ss"_s));
}

} // namespace tarn::test
