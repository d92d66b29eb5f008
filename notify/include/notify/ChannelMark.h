#pragma once

#include <deque>
#include <memory>
#include <string>

namespace Notify {

/// How far a channel has come in the report store. Not thread-safe.
struct ChannelMark {
    long long acked = 0;    ///< all reports up to this one have been delivered
    long long sending = 0;  ///< a delivery up to this one was begun; 0: none
    long long lost = 0;     ///< reports that were dropped before, and nobody was told yet
    std::deque<long long> times = {};  ///< of deliveries, since the epoch

    /// False when the text is no mark.
    bool Parse(const std::string& text);
    std::string Text() const;
};

/// Keeps the text of a mark across starts. Not thread-safe.
class MarkKeeper {
  public:
    virtual ~MarkKeeper() = default;

    enum class Found { kMark, kNone, kFailed };
    virtual Found Read(std::string& text) = 0;

    /// In one step. Empty, or why it failed.
    virtual std::string Write(const std::string& text) = 0;
    virtual void Remove() = 0;
};

/// In the file `path`.
std::unique_ptr<MarkKeeper> KeepInFile(const std::string& path);

}  // namespace Notify
