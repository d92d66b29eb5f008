#pragma once

#include <string>

namespace Engine {

/// Compares the content of a changed file with that of its backup copy. Not thread-safe.
class ContentDiff {
  public:
    /// `changed` may be the path of a PinnedFile that outlives this object.
    ContentDiff(std::string copy, std::string changed);

    /// The difference, at most 1024 bytes; empty for what is no text file. Blocks for at most five
    /// seconds. To be called once.
    std::string Take();

    /// After Take: the comparison needed too much time or memory; the text is empty or incomplete.
    bool IsLeftOut() const { return left_out_; }

  private:
    std::string Compare();

    const std::string copy_;
    const std::string changed_;
    bool left_out_ = false;
};

}  // namespace Engine
