// Has this process live in another time zone for a while.
#pragma once

#include <QByteArray>

#include <ctime>

namespace tarn::test {

/// The process's time zone while it lives; UTC, in which the tests run, afterwards.
class Zone
{
public:
    explicit Zone(const QByteArray& name) { set(name); }
    ~Zone() { set("UTC"); }
    Zone(const Zone&) = delete;
    Zone& operator=(const Zone&) = delete;

    static void set(const QByteArray& name)
    {
        qputenv("TZ", name);
        tzset();
    }
};

} // namespace tarn::test
