// The page of the host: records in, HTML out.
#pragma once

#include "report/HostData.h"

#include <QByteArray>

namespace tarn::report {

QByteArray hostPage(const HostFigures& figures);

} // namespace tarn::report
