#pragma once

#include <sdk/text/SigningKey.h>

#include <chrono>
#include <memory>
#include <mutex>

namespace Engine {

/// A private key that an operator keeps elsewhere and hands over for one decision. It is forgotten
/// when it is taken, or after kPatience. Thread-safe.
class LentKey {
  public:
    using Key = std::shared_ptr<const SDK::SigningKey>;

    static constexpr std::chrono::seconds kPatience{60};

    void Lend(Key key);

    /// Whether Take would give one.
    Key Look() const;

    /// The key, which the caller owns alone from now on; null: there is none.
    Key Take();

    void DropExpired();

  private:
    bool IsInTime() const { return std::chrono::steady_clock::now() < end_; }

    mutable std::mutex mutex_;  ///< guards all below
    Key key_;
    std::chrono::steady_clock::time_point end_;
};

}  // namespace Engine
