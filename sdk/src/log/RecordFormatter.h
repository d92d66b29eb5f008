#pragma once

#include <Poco/PatternFormatter.h>

namespace SDK {

/// Writes a log record as one line: time, priority, logger, thread, source place, text. Line ends
/// and other control characters of the text are escaped, so that no text can pass for two records.
class RecordFormatter : public Poco::PatternFormatter {
  public:
    RecordFormatter();

    void format(const Poco::Message& record, std::string& line) override;
};

}  // namespace SDK
