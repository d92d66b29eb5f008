#pragma once

#include <deque>
#include <string>

namespace Agent {

/// How far a channel has come in the report store, kept across starts in one file. Not thread-safe.
struct ChannelMark {
    long long acked = 0;    ///< all reports up to this one have been delivered
    long long sending = 0;  ///< a delivery up to this one was begun; 0: none
    long long lost = 0;     ///< reports that were dropped before, and nobody was told yet
    std::deque<long long> times = {};  ///< of deliveries, since the epoch

    /// False when there is no mark: the channel is new, or the file is damaged.
    bool Read(const std::string& file);

    /// In one step. 0, or an errno.
    int Write(const std::string& file) const;
};

}  // namespace Agent
