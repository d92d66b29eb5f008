#include "EvidenceList.h"

#include <json/value.h>
#include <sdk/text/JsonUtils.h>

#include <sstream>

namespace Evidence {

namespace {

constexpr std::size_t kIdLength = 64;

Record ToRecord(const Json::Value& line) {
    Record record;
    record.id = SDK::JsonUtils::GetStringValue(line, "id", "");
    record.path = SDK::JsonUtils::GetStringValue(line, "path", "");
    record.time = line["time"].asInt64();
    record.mode = line["mode"].asUInt();
    record.user = line["user"].asUInt();
    record.group = line["group"].asUInt();
    record.modified = line["modified"].asInt64();
    record.size = line["size"].asUInt64();
    record.kept = line["kept"].asUInt64();
    return record;
}

bool HasNumbers(const Json::Value& line) {
    for (const char* name : {"time", "modified"}) {
        if (!line[name].isInt64()) return false;
    }
    for (const char* name : {"mode", "user", "group"}) {
        if (!line[name].isUInt()) return false;
    }
    return line["size"].isUInt64() && line["kept"].isUInt64();
}

}  // namespace

bool IsId(const std::string& id) {
    return id.size() == kIdLength && id.find_first_not_of("0123456789abcdef") == std::string::npos;
}

std::string ToLine(const Record& record) {
    Json::Value line(Json::objectValue);
    line["id"] = record.id;
    line["path"] = record.path;
    line["time"] = static_cast<Json::Int64>(record.time);
    line["mode"] = record.mode;
    line["user"] = record.user;
    line["group"] = record.group;
    line["modified"] = static_cast<Json::Int64>(record.modified);
    line["size"] = static_cast<Json::UInt64>(record.size);
    line["kept"] = static_cast<Json::UInt64>(record.kept);
    return SDK::JsonUtils::JsonToString(line) + "\n";
}

std::vector<Record> FromLines(const std::string& text) {
    std::vector<Record> records;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        Json::Value value;
        if (SDK::JsonUtils::ParseJsonStr(line.data(), line.size(), value) != 0 ||
            !value.isObject() || !HasNumbers(value)) {
            continue;
        }
        Record record = ToRecord(value);
        if (IsId(record.id)) records.push_back(std::move(record));
    }
    return records;
}

}  // namespace Evidence
