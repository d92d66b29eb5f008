#pragma once

#include <fleet/Report.h>
#include <json/value.h>

#include <cstdint>
#include <deque>
#include <functional>
#include <string>

namespace Engine {

/// What the exporter has done, for the status.
struct ExportState {
    std::string stream;
    std::int64_t acknowledged = 0;
    std::int64_t last_seq = 0;
    std::int64_t in_flight = 0;
    std::int64_t lost = 0;  ///< dropped by the store before a collector had them; since the start
};

/// Sends the reports of the report store in order, at most `window` beyond what the collector has
/// acknowledged. The store is the queue: after a loss it reads and sends them again. Not
/// thread-safe.
///
/// The numbers are those of one store. The name of its entry among the store's exporters holds a
/// random id, the stream, so a new store begins a new stream.
class ReportExporter {
  public:
    /// Queries of the report module. False when it does not answer.
    using Ask =
        std::function<bool(const char* query, const Json::Value& request, Json::Value& answer)>;
    /// False when the report cannot be sent now.
    using Publish = std::function<bool(const Fleet::Report& report)>;
    /// Reports that `count` reports are lost, the last of them `seq`.
    using TellLoss = std::function<void(std::int64_t count, std::int64_t seq)>;

    ReportExporter(int window, Ask ask, Publish publish, TellLoss tell_loss);

    /// A new connection: what was sent before may be lost.
    void Restart();

    /// Sends what the window allows. `now_ms`: monotonic.
    void Pump(std::int64_t now_ms);

    void Take(const Fleet::Acknowledgement& acknowledgement, std::int64_t now_ms);

    ExportState State() const;

  private:
    struct Sent {
        std::int64_t seq = 0;
        std::size_t bytes = 0;
    };

    bool FindStream();
    bool BeginStream();
    void SendAgain(std::int64_t now_ms);
    void ForgetSent();
    void NoteGap(std::int64_t seq);
    bool Send(const Json::Value& report);
    bool AcknowledgeUpTo(std::int64_t seq);

    const std::int64_t window_;
    const Ask ask_;
    const Publish publish_;
    const TellLoss tell_loss_;
    std::string stream_;             ///< empty: not known yet
    std::int64_t acknowledged_ = 0;  ///< the mark
    std::int64_t sent_ = 0;          ///< the last one sent since the last Restart or SendAgain
    std::int64_t highest_sent_ = 0;
    std::int64_t known_lost_ = 0;  ///< up to here losses are counted
    std::int64_t last_seq_ = 0;
    std::int64_t lost_ = 0;
    std::deque<Sent> in_flight_;
    std::size_t bytes_in_flight_ = 0;
    std::int64_t progress_ms_ = 0;
    std::int64_t again_ms_ = 0;
    std::int64_t patience_ms_ = 0;
};

}  // namespace Engine
