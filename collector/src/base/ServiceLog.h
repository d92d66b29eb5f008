#pragma once

#include <string>

namespace Collector {

/// The severities that the journal understands.
enum class Severity { kError = 3, kWarning = 4, kNotice = 5 };

/// Writes one line to standard error, in the form that the journal reads. Control characters of
/// `text` are made visible. Thread-safe.
void Log(Severity severity, const std::string& text);

}  // namespace Collector
