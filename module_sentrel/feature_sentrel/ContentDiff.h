#pragma once

#include <sdk/RunningCommand.h>

#include <memory>
#include <string>
#include <utility>

namespace Engine {

/// How the content of a changed file differs from that of its backup copy. The comparison goes on
/// while its maker does something else. One thread.
class ContentDiff {
  public:
    /// What is known already, or that nothing is to be compared.
    explicit ContentDiff(std::string text = "") : text_(std::move(text)) {}

    /// Begins. `changed` may be a path that only evidence keeps hold of, for as long as this lives.
    ContentDiff(const std::string& backup, const std::string& changed);

    /// Blocks until it is done, at most five seconds from the beginning on. At most 1024 bytes;
    /// empty for what is no text file. Once only.
    std::string Take();

  private:
    std::string backup_;
    std::string changed_;
    std::string text_;
    std::unique_ptr<SDK::RunningCommand> command_;  ///< none: `text_` is all there is
};

}  // namespace Engine
