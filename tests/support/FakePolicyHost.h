#pragma once

#include <policy/PolicyHost.h>

#include <string>
#include <utility>
#include <vector>

namespace test {

/// Stands in for the framework and its modules: finds errors in a policy with the word "wrong", and
/// places that are not safe in one with "unsafe" when it looks only for these, warns of one with
/// "odd", and applies by keyword: "on", "off" (also the default), "throws", "reports" (off, with an
/// exception report). Notes what was applied.
class FakePolicyHost : public Agent::PolicyHost {
  public:
    std::vector<std::string> features = {"feature_a", "feature_b"};
    std::vector<std::pair<std::string, std::string>> applied;
    std::string noise;  ///< an exception that some task reports during the next apply

    std::vector<std::string> Features() const override { return features; }

    bool Check(const std::string&, const std::string& text, Scope scope,
               Json::Value& answer) override {
        Json::Value message;
        message["pointer"] = "/content";
        message["message"] = text;
        if (scope == Scope::kAll ? Has(text, "wrong") : Has(text, "unsafe"))
            answer["errors"].append(message);
        if (Has(text, "odd")) answer["warnings"].append(message);
        return !Has(text, "uncheckable");
    }

    Framework::PolicyOutcome Apply(const std::string& feature, const std::string& text) override {
        applied.emplace_back(feature, text);
        Framework::PolicyOutcome outcome;
        outcome.handled = !Has(text, "unhandled");
        outcome.result = Has(text, "on") ? 1 : 0;
        if (Has(text, "throws")) outcome.exception = "basic_string::at";
        if (Has(text, "reports")) Report("parse feature policy failed.");
        if (!noise.empty()) Report(std::exchange(noise, ""));
        return outcome;
    }

    std::int64_t LastReport() override { return static_cast<std::int64_t>(reports_.size()); }

    std::string ExceptionSince(std::int64_t after, const std::string&) override {
        return after < LastReport() ? reports_.back() : "";
    }

  private:
    static bool Has(const std::string& text, const char* word) {
        return text.find(word) != std::string::npos;
    }
    void Report(const std::string& text) { reports_.push_back(text); }

    std::vector<std::string> reports_;
};

}  // namespace test
