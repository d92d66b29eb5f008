#pragma once

#include <string>

namespace Framework {

class Policy;

/// Receives pushed policies. Called on the framework thread with the module's gate held
/// exclusively. The framework owns and deletes it.
class AbstractPolicyCallback {
  public:
    virtual ~AbstractPolicyCallback() = default;
    virtual int invoke(const std::string& feature, const std::string& policy_json,
                       Policy*& policy) const = 0;
};

template <typename Target>
class PolicyCallback : public AbstractPolicyCallback {
  public:
    using Method = int (Target::*)(const std::string&, const std::string&, Policy*&);

    PolicyCallback(Target* target, Method method) : target_(target), method_(method) {}

    int invoke(const std::string& feature, const std::string& policy_json,
               Policy*& policy) const override {
        return (target_->*method_)(feature, policy_json, policy);
    }

  private:
    Target* target_;
    Method method_;
    bool flag_ = false;  ///< reserved; the framework does not read it
};

/// Answers requests by id. Called on the framework thread; a long action has its own thread. The
/// framework owns and deletes it.
class AbstractTaskletCallback {
  public:
    virtual ~AbstractTaskletCallback() = default;
    virtual int invoke(const std::string& request) const = 0;
    virtual bool IsLongAction() const = 0;
};

template <typename Target>
class TaskletCallback : public AbstractTaskletCallback {
  public:
    using Method = int (Target::*)(const std::string&);

    TaskletCallback(Target* target, Method method) : target_(target), method_(method) {}

    int invoke(const std::string& request) const override { return (target_->*method_)(request); }
    bool IsLongAction() const override { return is_long_action_; }

  private:
    Target* target_;
    Method method_;
    bool is_long_action_ = false;
};

}  // namespace Framework
