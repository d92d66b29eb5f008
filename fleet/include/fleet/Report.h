#pragma once

#include <fleet/BrokerClient.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

namespace Fleet {

constexpr std::size_t kMaxBodyBytes = 256 * 1024;

/// One report on its way to the collector. The numbers say where it stands in the host's stream:
/// it follows `previous`; everything up to `acknowledged` is known to be stored at a collector.
struct Report {
    std::string stream;  ///< identifies the report store that the numbers are of
    std::int64_t seq = 0;
    std::int64_t previous = 0;
    std::int64_t acknowledged = 0;
    std::int64_t time_ms = 0;
    std::string kind;  ///< "cmd", "data" or "alarm"
    std::string name;
    std::string outcome;
    std::string duration_ms;  ///< decimal; empty: unknown
    std::string evidence;
    std::string body;
    std::int64_t whole_bytes = 0;  ///< of the body before it was cut to kMaxBodyBytes
};

/// The message; cuts the body.
Message ToMessage(const std::string& agent_id, const Report& report);

/// None when a number is missing or wrong, or a text is too long. `kind` is the topic's leaf.
std::optional<Report> ReadReport(const std::string& kind, Message&& message);

/// "I have stored everything up to `seq`." With `again`: "and nothing of what I have received
/// after it; send it again."
struct Acknowledgement {
    std::string stream;
    std::int64_t seq = 0;
    bool again = false;
};

std::string ToText(const Acknowledgement& acknowledgement);
std::optional<Acknowledgement> ReadAcknowledgement(const std::string& text);

}  // namespace Fleet
