#pragma once

#include <string>

namespace Framework {

/// One pushed policy, or the base class of a policy parser.
class Policy {
  public:
    explicit Policy(const std::string& name) : name_(name) {}
    virtual ~Policy() = default;

    /// Parses the document; true when it is accepted.
    virtual bool Parse(const std::string& text);

    const std::string& Name() const { return name_; }

    /// The framework offers a handled policy to no further callback.
    void SetHandled(bool handled) { handled_ = handled; }
    bool IsHandled() const { return handled_; }

  private:
    const std::string name_;
    bool handled_ = false;
};

}  // namespace Framework
