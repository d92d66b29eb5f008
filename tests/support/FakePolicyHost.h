#pragma once

#include <policy/PolicyHost.h>

#include <string>
#include <utility>
#include <vector>

namespace test {

/// Replaces the framework and its modules. Words in the policy text decide the results. Check: an
/// error for "wrong" (for "unsafe" when only places are checked), a warning for "odd", no check for
/// "uncheckable". Completed: "partial" appends the last good policy. Apply: "on", "off" (the
/// default), "throws", "refused", "unhandled". Records what was applied.
class FakePolicyHost : public Agent::PolicyHost {
  public:
    std::vector<std::string> features = {"feature_a", "feature_b"};
    std::vector<std::pair<std::string, std::string>> applied;
    std::vector<bool> by_operator;  ///< of each applied one

    std::vector<std::string> Features() const override { return features; }

    bool Check(const std::string&, const std::string& text, Scope scope,
               Json::Value& answer) override {
        Json::Value message;
        message["pointer"] = "/content";
        message["message"] = text;
        if (scope != Scope::kPlaces ? Has(text, "wrong") : Has(text, "unsafe"))
            answer["errors"].append(message);
        if (Has(text, "odd")) answer["warnings"].append(message);
        return !Has(text, "uncheckable");
    }

    std::string Completed(const std::string&, const std::string& text,
                          const std::string& last) override {
        return Has(text, "partial") ? text + "; " + last : text;
    }

    Framework::PolicyOutcome Apply(const std::string& feature, const std::string& text,
                                   Framework::PolicyOrigin origin) override {
        applied.emplace_back(feature, text);
        by_operator.push_back(origin == Framework::PolicyOrigin::kOperator);
        Framework::PolicyOutcome outcome;
        outcome.handled = !Has(text, "unhandled");
        outcome.result = Has(text, "on") ? 1 : 0;
        if (Has(text, "throws")) outcome.exception = "basic_string::at";
        if (Has(text, "refused")) outcome.rejection = "parse feature policy failed.";
        return outcome;
    }

  private:
    static bool Has(const std::string& text, const char* word) {
        return text.find(word) != std::string::npos;
    }
};

}  // namespace test
