#pragma once

#include <cstddef>
#include <deque>

namespace Notify {

/// When a channel delivers what has been collected.
struct Pacing {
    long long settle_ms = 0;   ///< when nothing more has come so long
    long long longest_ms = 0;  ///< and this long after the first at the latest
    std::size_t most = 0;      ///< reports in one delivery; 0: any number
    int most_per_hour = 0;     ///< deliveries; 0: any number
    long long digest_s = 0;    ///< beyond that one delivery each so long, with everything in it
    bool is_retried = true;    ///< false: a failed delivery is counted and given up
    bool is_repeated_whole = false;  ///< a start repeats an unfinished delivery as it was
};

/// Decides which reports one delivery has, and when it is due. Times in ms are monotonic, those in
/// s are since the epoch. Not thread-safe.
class Pacer {
  public:
    explicit Pacer(const Pacing& pacing) : pacing_(pacing) {}

    /// False when the report, raised at `raised_ms` since the epoch, belongs to the next delivery;
    /// this one is due then.
    bool Add(long long raised_ms, long long now_ms, long long now_s);

    /// A report of a delivery that is made again: it belongs to this one whatever its time.
    void AddAgain(long long raised_ms, long long now_ms);

    /// No further report belongs to this delivery.
    void Close() { is_closed_ = !IsEmpty(); }

    bool IsEmpty() const { return count_ == 0; }
    bool IsDue(long long now_ms, long long now_s) const;

    /// More deliveries than allowed were made in the last hour.
    bool IsLimited(long long now_s) const;

    /// The limit has held back what was collected.
    bool IsDigest() const { return is_digest_; }

    /// The delivery was made, or given up.
    void Delivered(long long now_s);

    /// The times of the deliveries in the last hour.
    const std::deque<long long>& Times() const { return times_; }
    void SetTimes(std::deque<long long> times) { times_ = std::move(times); }

  private:
    Pacing pacing_;
    std::size_t count_ = 0;
    long long first_raised_ms_ = 0;
    long long first_ms_ = 0;
    long long last_ms_ = 0;
    bool is_closed_ = false;
    bool is_digest_ = false;
    std::deque<long long> times_;
};

}  // namespace Notify
