#pragma once

#include <string>

namespace Framework {

/// One pushed policy, or the base of what parses one.
class Policy {
  public:
    explicit Policy(const std::string& name) : name_(name) {}
    virtual ~Policy() = default;

    /// Takes the document in; true when it was accepted.
    virtual bool Parse(const std::string& text);

    const std::string& Name() const { return name_; }

    /// Tells the framework not to dispatch the policy to further callbacks.
    void SetHandled(bool handled) { handled_ = handled; }
    bool IsHandled() const { return handled_; }

  private:
    const std::string name_;
    bool handled_ = false;
};

}  // namespace Framework
