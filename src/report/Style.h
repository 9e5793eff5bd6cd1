// The style sheet of the pages, and the policy that lets nothing else in.
#pragma once

#include <QString>

#include <string_view>

namespace tarn::report {

extern const std::string_view kStyleSheet;

/// The Content-Security-Policy of a page: no script, no request, and no style but kStyleSheet, by its hash.
QString contentSecurityPolicy();

} // namespace tarn::report
