#pragma once

#include <string>

#include "restore/ObjectAttributes.h"

namespace SDK {

/// What a symbolic link is: its text and its attributes. One thread.
class SymbolicLink {
  public:
    /// Reads the link `name` in `directory`; EINVAL when it is none.
    FailedStep Read(int directory, const std::string& name);

    const std::string& Text() const { return text_; }
    const ObjectAttributes& Attributes() const { return attributes_; }

    /// True when a restore would change nothing about this one.
    bool IsAs(const SymbolicLink& wanted) const;

  private:
    std::string text_;
    ObjectAttributes attributes_;
};

}  // namespace SDK
