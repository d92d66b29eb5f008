#pragma once

#include <string>

#include "restore/object/ObjectAttributes.h"

namespace SDK {

/// A symbolic link's text and attributes. Not thread-safe.
class SymbolicLink {
  public:
    /// Reads the link `name` in `directory`; EINVAL when it is not a link.
    FailedStep Read(int directory, const std::string& name);

    const std::string& Text() const { return text_; }
    const ObjectAttributes& Attributes() const { return attributes_; }

    /// True when a restore to `wanted` would change nothing.
    bool IsAs(const SymbolicLink& wanted) const;

  private:
    std::string text_;
    ObjectAttributes attributes_;
};

}  // namespace SDK
