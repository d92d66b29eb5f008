#include "attack/ResultTable.h"

#include <algorithm>
#include <cstdio>
#include <string_view>

namespace Demo {
namespace {

constexpr std::size_t kReportedWidth = 11;
constexpr std::size_t kRestoredWidth = 8;
constexpr std::size_t kMillisecondsWidth = 8;
constexpr std::size_t kLongestPath = 48;
constexpr std::size_t kPathEnd = 12;
constexpr std::string_view kCut = "...";

std::string Milliseconds(double value) {
    char text[32];
    std::snprintf(text, sizeof(text), "%.1f", value);
    return text;
}

std::string PadRight(std::string text, std::size_t width) {
    if (text.size() < width) text.append(width - text.size(), ' ');
    return text;
}

std::string PadLeft(const std::string& text, std::size_t width) {
    return text.size() < width ? std::string(width - text.size(), ' ') + text : text;
}

/// The path without control characters, shortened for the table.
std::string Shown(const std::string& path) {
    std::string text;
    for (const char c : path) {
        const auto byte = static_cast<unsigned char>(c);
        char code[8];
        std::snprintf(code, sizeof(code), "\\x%02x", byte);
        text += c == '\n' ? "\\n" : byte < ' ' || byte == 0x7F ? code : std::string(1, c);
    }
    if (text.size() <= kLongestPath) return text;
    return text.substr(0, kLongestPath - kPathEnd - kCut.size()) + std::string(kCut) +
           text.substr(text.size() - kPathEnd);
}

}  // namespace

ResultTable::ResultTable(const std::vector<Attack>& attacks, std::string base)
    : base_(std::move(base)), action_width_(6), path_width_(4) {
    for (const Attack& attack : attacks) {
        action_width_ = std::max(action_width_, attack.name.size());
        path_width_ = std::max(path_width_, Shown(Relative(attack.path)).size());
    }
}

std::string ResultTable::Header() const {
    return Row("action", "path", "reported as", "restored", "ms");
}

std::string ResultTable::Line(const AttackResult& result) const {
    return Row(result.name, Shown(Relative(result.path)),
               result.alarm ? result.alarm->action : "not at all", result.undone ? "yes" : "NO",
               result.undone ? Milliseconds(result.undone_ms) : "-");
}

Json::Value ResultTable::ToJson(const AttackResult& result) const {
    Json::Value line;
    line["action"] = result.name;
    line["path"] = Relative(result.path);
    line["reported_as"] = result.alarm ? Json::Value(result.alarm->action) : Json::Value();
    line["outcome"] = result.alarm ? Json::Value(result.alarm->outcome) : Json::Value();
    line["restored"] = result.undone;
    line["milliseconds"] = result.undone ? Json::Value(result.undone_ms) : Json::Value();
    line["failure"] = result.failure;
    return line;
}

std::string ResultTable::Relative(const std::string& path) const {
    for (const std::string& base : {base_, base_.substr(0, base_.rfind('/'))}) {
        if (path.rfind(base + "/", 0) == 0) return path.substr(base.size() + 1);
    }
    return path;
}

std::string ResultTable::Row(const std::string& action, const std::string& path,
                             const std::string& reported, const std::string& restored,
                             const std::string& milliseconds) const {
    return PadRight(action, action_width_) + "  " + PadRight(path, path_width_) + "  " +
           PadRight(reported, kReportedWidth) + "  " + PadRight(restored, kRestoredWidth) + "  " +
           PadLeft(milliseconds, kMillisecondsWidth);
}

}  // namespace Demo
