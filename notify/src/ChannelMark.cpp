#include "notify/ChannelMark.h"

#include <json/value.h>
#include <sdk/files/FileUtils.h>
#include <sdk/text/JsonUtils.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace Notify {

namespace {

constexpr long kMostBytes = 256 * 1024;

bool Take(const Json::Value& object, const char* key, long long& value) {
    if (!object[key].isInt64() || object[key].asInt64() < 0) return false;
    value = object[key].asInt64();
    return true;
}

class FileKeeper : public MarkKeeper {
  public:
    explicit FileKeeper(std::string path) : path_(std::move(path)) {}

    Found Read(std::string& text) override {
        return SDK::FileUtils::ReadFile(path_, text, kMostBytes) == 0 ? Found::kMark : Found::kNone;
    }
    std::string Write(const std::string& text) override {
        if (SDK::FileUtils::WriteFile(path_, text, false) == 0) return "";
        return path_ + ": " + std::strerror(errno);
    }
    void Remove() override { ::unlink(path_.c_str()); }

  private:
    const std::string path_;
};

}  // namespace

bool ChannelMark::Parse(const std::string& text) {
    Json::Value object;
    *this = {};
    if (SDK::JsonUtils::ParseJsonStr(text.data(), text.size(), object) != 0 || !object.isObject() ||
        !Take(object, "acked", acked) || !Take(object, "sending", sending) ||
        !Take(object, "lost", lost)) {
        *this = {};
        return false;
    }
    for (const Json::Value& time : object["times"]) {
        if (time.isInt64()) times.push_back(time.asInt64());
    }
    return true;
}

std::string ChannelMark::Text() const {
    Json::Value object(Json::objectValue);
    object["acked"] = static_cast<Json::Int64>(acked);
    object["sending"] = static_cast<Json::Int64>(sending);
    object["lost"] = static_cast<Json::Int64>(lost);
    object["times"] = Json::Value(Json::arrayValue);
    for (const long long time : times) object["times"].append(static_cast<Json::Int64>(time));
    return SDK::JsonUtils::JsonToString(object) + "\n";
}

std::unique_ptr<MarkKeeper> KeepInFile(const std::string& path) {
    return std::make_unique<FileKeeper>(path);
}

}  // namespace Notify
