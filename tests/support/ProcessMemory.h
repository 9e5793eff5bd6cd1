// What the running process takes of the machine's memory.
#pragma once

#include <QByteArrayView>

namespace tarn::test {

/// A figure of /proc/self/status in MB: "VmHWM" is the most memory that the process has had, "VmRSS" what it
/// has.
double memoryMb(QByteArrayView key);

/// Has "VmHWM" start anew at what the process has; the running test fails when that is refused.
void resetMemoryPeak();

} // namespace tarn::test
