#pragma once

#include <string>

namespace Engine {

/// How the content of a changed file differs from that of its backup copy. One thread.
class ContentDiff {
  public:
    /// `changed` may be a path that only pinned keeps hold of, for as long as this lives.
    ContentDiff(std::string copy, std::string changed);

    /// Blocks until it is found out, at most five seconds. At most 1024 bytes; empty for what is no
    /// text file. Once only.
    std::string Take();

    /// After Take: it would have taken too much time or memory; the text is none or a part.
    bool IsLeftOut() const { return left_out_; }

  private:
    std::string Compare();

    const std::string copy_;
    const std::string changed_;
    bool left_out_ = false;
};

}  // namespace Engine
