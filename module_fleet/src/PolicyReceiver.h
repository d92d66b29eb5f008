#pragma once

#include <fleet/SignedDocument.h>
#include <json/value.h>
#include <sdk/text/SigningKey.h>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>

#include "ReportExporter.h"

namespace Engine {

/// Takes signed policies from the broker: verifies them, refuses older versions, has the agent
/// check and apply them, and answers. What was taken is kept in `file` and survives a restart. Not
/// thread-safe.
///
/// The broker is hostile: one document a feature waits, and one is verified at a time, five a
/// second at most.
class PolicyReceiver {
  public:
    using Ask = ReportExporter::Ask;  ///< queries of the agent
    using Answer = std::function<void(const std::string& feature, const Json::Value& result)>;
    /// Reports a refused document; once for each, and at most once a minute.
    using TellRefusal = std::function<void(const std::string& feature, const std::string& why)>;

    /// `key` is the operator's public key; null: every document is refused.
    PolicyReceiver(Fleet::Identity host, std::shared_ptr<const SDK::SigningKey> key,
                   std::string file, Ask ask, Answer answer, TellRefusal tell_refusal);

    /// A document arrived. Keeps it until Work; a newer one of the feature replaces it.
    void Take(const std::string& feature, std::string&& document);

    /// Goes on by one step; never waits. `now_ms`: monotonic.
    void Work(std::int64_t now_ms);

    std::int64_t Refused() const { return refused_; }

  private:
    struct Running {
        std::string feature;
        Json::Value ticket;
        Json::Value result;
    };

    void Load();
    bool Save() const;
    void Examine(const std::string& feature, const std::string& document, std::int64_t now_ms);
    bool IsTaken(const std::string& feature, const Json::Value& result);
    void Refuse(const std::string& feature, Json::Value result, const std::string& why,
                std::int64_t now_ms);
    bool Submit(const std::string& feature, const std::string& text, const Json::Value& result);
    void Finish();

    const Fleet::Identity host_;
    const std::shared_ptr<const SDK::SigningKey> key_;
    const std::string file_;
    const Ask ask_;
    const Answer answer_;
    const TellRefusal tell_refusal_;
    std::map<std::string, std::string> waiting_;  ///< by feature
    Json::Value taken_{Json::objectValue};        ///< the last result of each feature
    Running running_;                             ///< no feature: nothing is being applied
    std::string last_refused_;                    ///< digest
    std::int64_t examined_ms_ = 0;
    std::int64_t told_ms_ = 0;
    std::int64_t refused_ = 0;
};

}  // namespace Engine
