#include <sdk/text/MetricFamily.h>
#include <sdk/text/StrUtils.h>
#include <sdk/text/Utf8.h>

namespace SDK {

namespace {

std::string Escaped(const std::string& value) {
    std::string text;
    for (const char c : ToValidUtf8(value)) {
        if (c == '\\' || c == '"') text += '\\';
        text += c == '\n' ? std::string("\\n") : std::string(1, c);
    }
    return text;
}

std::string Format(const MetricLabels& labels) {
    if (labels.empty()) return "";
    std::string text;
    for (const auto& [name, value] : labels) {
        text += text.empty() ? "{" : ",";
        text += std::string(name) + "=\"" + Escaped(value) + "\"";
    }
    return text + "}";
}

}  // namespace

void MetricFamily::Add(const Json::Value& value, const MetricLabels& labels, const char* suffix) {
    if (!value.isNumeric() && !value.isBool()) return;
    const std::string sample = name_ + suffix + Format(labels);
    if (!known_.insert(sample).second) return;
    if (known_.size() == 1) {
        out_ += "# HELP " + name_ + " " + help_ + "\n# TYPE " + name_ + " " + type_ + "\n";
    }
    out_ += sample + " ";
    out_ += value.isInt64() ? std::to_string(value.asInt64())
                            : StrUtils::Format("%.12g", value.asDouble());
    out_ += "\n";
}

}  // namespace SDK
