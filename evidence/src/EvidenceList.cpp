#include "EvidenceList.h"

#include <json/value.h>
#include <sdk/text/JsonUtils.h>

#include <sstream>

namespace Evidence {

namespace {

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

/// Earlier versions kept each content in a file of its own.
Place ToPlace(const Json::Value& line) {
    if (!line.isMember("pack")) return {};
    return {line["pack"].asUInt(), line["at"].asUInt()};
}

bool HasNumbers(const Json::Value& line) {
    for (const char* name : {"time", "modified"}) {
        if (!line[name].isInt64()) return false;
    }
    for (const char* name : {"mode", "user", "group"}) {
        if (!line[name].isUInt()) return false;
    }
    if (line.isMember("pack") && !(line["pack"].isUInt() && line["at"].isUInt())) return false;
    return line["size"].isUInt64() && line["kept"].isUInt64();
}

}  // namespace

std::string ToLine(const Record& record, const Place& place) {
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
    if (place.pack != 0) {
        line["pack"] = place.pack;
        line["at"] = place.at;
    }
    return SDK::JsonUtils::JsonToString(line) + "\n";
}

std::vector<ListedRecord> FromLines(const std::string& text) {
    std::vector<ListedRecord> records;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        Json::Value value;
        if (SDK::JsonUtils::ParseJsonStr(line.data(), line.size(), value) != 0 ||
            !value.isObject() || !HasNumbers(value)) {
            continue;
        }
        ListedRecord listed{ToRecord(value), ToPlace(value)};
        if (IsId(listed.record.id)) records.push_back(std::move(listed));
    }
    return records;
}

}  // namespace Evidence
