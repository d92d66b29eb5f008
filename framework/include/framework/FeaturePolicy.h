#pragma once

#include <framework/Policy.h>

#include <string>

namespace Framework {

/// The policy of a feature. Allocated with new; its constructor registers it by name. The next
/// policy of that name, or the end of the process, deletes it; an earlier delete unregisters it.
/// Framework thread only.
class FeaturePolicy : public Policy {
  public:
    explicit FeaturePolicy(const std::string& name);
    ~FeaturePolicy() override;
    FeaturePolicy(const FeaturePolicy&) = delete;
    FeaturePolicy& operator=(const FeaturePolicy&) = delete;

    bool Parse(const std::string& text) override = 0;

    /// Passes a task's policy to this feature's tasks; does nothing by default.
    virtual void Dispatch(Policy* policy);

    /// True when a string differs from the one passed to StoreIdentity.
    virtual bool PolicyChanged(const std::string& version, const std::string& content);

    /// Stores what PolicyChanged compares with.
    void StoreIdentity(const std::string& version, const std::string& content);

    /// Deletes all registered feature policies. For the end of the process and for tests.
    static void DeleteAll();

  private:
    std::string version_;
    std::string content_;
};

/// The policy of one task of a feature.
class TaskPolicy : public Policy {
  public:
    explicit TaskPolicy(const std::string& name) : Policy(name) {}
    bool Parse(const std::string& text) override = 0;
    virtual void Dispatch(Policy* policy);
    virtual bool PolicyChanged(const std::string& version, const std::string& content);

  private:
    std::string version_;
    std::string content_;
};

}  // namespace Framework
