#include "log/RecordFormatter.h"

#include <Poco/Message.h>

#include "sdk/text/StrUtils.h"

namespace SDK {

namespace {

constexpr const char* kPattern = "%L%Y-%m-%dT%H:%M:%S.%i%z [%p] %s (%I) ";

std::string Escape(const std::string& text) {
    std::string escaped;
    escaped.reserve(text.size());
    for (const char letter : text) {
        const auto byte = static_cast<unsigned char>(letter);
        if (letter == '\n') {
            escaped += "\\n";
        } else if (byte < 0x20 || byte == 0x7F) {
            escaped += StrUtils::Format("\\x%02x", byte);
        } else {
            escaped += letter;
        }
    }
    return escaped;
}

}  // namespace

RecordFormatter::RecordFormatter() : Poco::PatternFormatter(kPattern) {}

void RecordFormatter::format(const Poco::Message& record, std::string& line) {
    Poco::PatternFormatter::format(record, line);
    if (record.getSourceFile() != nullptr) {
        line += StrUtils::Format("%s:%d ", record.getSourceFile(), record.getSourceLine());
    }
    line += Escape(record.getText());
}

}  // namespace SDK
