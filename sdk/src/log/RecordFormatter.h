#pragma once

#include <Poco/PatternFormatter.h>

namespace SDK {

/// Formats a log record as one line: time, priority, logger, thread, source position, text. Escapes
/// line ends and other control characters, so that no text looks like two records.
class RecordFormatter : public Poco::PatternFormatter {
  public:
    RecordFormatter();

    void format(const Poco::Message& record, std::string& line) override;
};

}  // namespace SDK
