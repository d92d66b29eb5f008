#include "feature_sentrel/policy_check/PolicyCompletion.h"

#include <sdk/text/JsonUtils.h>

namespace Engine {

namespace {

using SDK::JsonUtils;

bool ReadDirList(const std::string& text, Json::Value& root, Json::Value& list) {
    Json::Value content;
    return JsonUtils::ParseJsonStr(text.c_str(), text.size(), root) == 0 &&
           JsonUtils::GetSubobjectValue(root, "content", content) &&
           JsonUtils::GetArrayValue(content, "dirlist", list);
}

}  // namespace

std::string WithDirListOf(const std::string& text, const std::string& last) {
    Json::Value root;
    Json::Value last_root;
    Json::Value list;
    if (ReadDirList(text, root, list) || !root.isObject()) return text;
    if (!ReadDirList(last, last_root, list)) return text;
    Json::Value& content = root["content"];
    if (!content.isObject() && !content.isNull()) return text;
    content["dirlist"] = list;
    return JsonUtils::JsonToString(root);
}

Json::Value AnswerCompletion(const Json::Value& request) {
    Json::Value answer(Json::objectValue);
    answer["text"] = WithDirListOf(JsonUtils::GetStringValue(request, "text", ""),
                                   JsonUtils::GetStringValue(request, "last", ""));
    return answer;
}

}  // namespace Engine
