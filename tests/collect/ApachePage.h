// A status page as Apache writes it, for the tests that stand in for Apache.
#pragma once

#include <QByteArray>

namespace tarn::test {

/// The page of "/server-status?auto": @p slotCount workers, the first @p busy of them at work.
inline QByteArray statusPage(int requests, int kBytes, int busy, int slotCount)
{
    return "127.0.0.1\nServerVersion: Apache/2.4.57 (Debian)\nServerMPM: event\nTotal Accesses: "
           + QByteArray::number(requests) + "\nTotal kBytes: " + QByteArray::number(kBytes)
           + "\nTotal Duration: 17\nCPULoad: .0134\nReqPerSec: .03\nBusyWorkers: " + QByteArray::number(busy)
           + "\nIdleWorkers: 47\nScoreboard: " + QByteArray(busy, 'W') + QByteArray(slotCount - busy, '.')
           + "\n";
}

} // namespace tarn::test
