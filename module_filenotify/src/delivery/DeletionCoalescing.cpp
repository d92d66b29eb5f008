#include "delivery/DeletionCoalescing.h"

#include <algorithm>
#include <iterator>
#include <map>
#include <utility>

namespace Engine::FileNotify {

namespace {

// Cost per name of restoring a whole directory: comparing or restoring it. Measured on small files.
constexpr std::chrono::nanoseconds kOneName = std::chrono::microseconds(100);
// Fewer deletions are undone one by one, because restoring a directory also undoes other changes in
// it without a report.
constexpr std::size_t kMinDeletions = 16;

struct Place {
    std::shared_ptr<const Subscription> subscription;
    std::string directory;

    /// Sorts inner directories before outer ones.
    bool operator<(const Place& other) const {
        if (directory.size() != other.directory.size()) {
            return directory.size() > other.directory.size();
        }
        return directory != other.directory ? directory < other.directory
                                            : subscription < other.subscription;
    }
};

struct Deletions {
    std::size_t count = 0;
    std::chrono::nanoseconds cost{0};  ///< of the cheapest way found
    std::chrono::steady_clock::time_point oldest = std::chrono::steady_clock::time_point::max();
};

using Chosen = std::vector<PendingChange>;

/// The parent directory of `path`; empty when it is outside the watch.
std::string ParentPath(const Subscription& subscription, const std::string& path) {
    const std::string& id = subscription.Id();
    if (path.size() <= id.size()) return {};
    return path.substr(0, std::max(path.rfind('/'), std::size_t{id == "/"}));
}

/// Replaces the chosen directories below `place` by `place`.
void Choose(const Place& place, const Deletions& deletions, Chosen& chosen) {
    const std::string inside = place.directory == "/" ? "/" : place.directory + "/";
    chosen.erase(std::remove_if(chosen.begin(), chosen.end(),
                                [&](const PendingChange& inner) {
                                    return inner.subscription == place.subscription &&
                                           inner.path.compare(0, inside.size(), inside) == 0;
                                }),
                 chosen.end());
    chosen.push_back(
        {place.subscription, place.directory, {}, IN_ATTRIB | IN_ISDIR, deletions.oldest});
}

using Places = std::map<Place, Deletions>;

/// Adds `more` to the parent directory of `path`.
void AddToParent(Places& places, const std::shared_ptr<const Subscription>& subscription,
                 const std::string& path, const Deletions& more) {
    std::string parent = ParentPath(*subscription, path);
    if (parent.empty()) return;
    Deletions& sum = places[{subscription, std::move(parent)}];
    sum.count += more.count;
    sum.cost += more.cost;
    sum.oldest = std::min(sum.oldest, more.oldest);
}

}  // namespace

std::vector<PendingChange> CoalesceDeletions(const std::vector<const PendingChange*>& deletions,
                                             const CountNames& count_names,
                                             std::chrono::nanoseconds deletion_cost) {
    Places places;
    for (const PendingChange* deletion : deletions) {
        AddToParent(places, deletion->subscription, deletion->path,
                    {1, deletion_cost, deletion->read_time});
    }
    Chosen chosen;
    // The loop adds outer directories, which it reaches later.
    for (auto& [place, sum] : places) {
        if (sum.count >= kMinDeletions) {
            const auto names = count_names(*place.subscription, place.directory);
            const auto whole = deletion_cost + kOneName * (names.value_or(0) + sum.count);
            if (names && whole < sum.cost) {
                sum.cost = whole;
                Choose(place, sum, chosen);
            }
        }
        AddToParent(places, place.subscription, place.directory, sum);
    }
    return chosen;
}

}  // namespace Engine::FileNotify
