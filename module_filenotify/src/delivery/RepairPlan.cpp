#include "delivery/RepairPlan.h"

#include <algorithm>
#include <iterator>
#include <map>
#include <utility>

namespace Engine::FileNotify {

namespace {

// What it takes for each name of a directory that is put back as a whole, to compare it or to put
// it back, beside what one deletion costs. Measured on small files.
constexpr std::chrono::nanoseconds kOneName = std::chrono::microseconds(100);
// Fewer are put back one by one: a directory put back as a whole also undoes, without a word, what
// else has been changed in it.
constexpr std::size_t kFewest = 16;

struct Place {
    std::shared_ptr<const Subscription> subscription;
    std::string directory;

    /// Inner directories come first.
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
    std::chrono::nanoseconds cost{0};  ///< of the cheapest way found so far
    std::chrono::steady_clock::time_point oldest = std::chrono::steady_clock::time_point::max();
};

using Chosen = std::vector<PendingChange>;

/// The directory that holds `path`; empty when that is outside the watch.
std::string Holder(const Subscription& subscription, const std::string& path) {
    const std::string& id = subscription.Id();
    if (path.size() <= id.size()) return {};
    return path.substr(0, std::max(path.rfind('/'), std::size_t{id == "/"}));
}

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

}  // namespace

std::vector<PendingChange> PlanRepairs(const std::vector<const PendingChange*>& deletions,
                                       const NamesBelow& names_below,
                                       std::chrono::nanoseconds one_deletion) {
    std::map<Place, Deletions> places;
    const auto add = [&](const std::shared_ptr<const Subscription>& subscription,
                         const std::string& path, const Deletions& more) {
        std::string holder = Holder(*subscription, path);
        if (holder.empty()) return;
        Deletions& sum = places[{subscription, std::move(holder)}];
        sum.count += more.count;
        sum.cost += more.cost;
        sum.oldest = std::min(sum.oldest, more.oldest);
    };
    for (const PendingChange* deletion : deletions) {
        add(deletion->subscription, deletion->path, {1, one_deletion, deletion->read_time});
    }
    Chosen chosen;
    // Outer directories, which come later, are added on the way.
    for (auto& [place, sum] : places) {
        if (sum.count >= kFewest) {
            const auto names = names_below(*place.subscription, place.directory);
            const auto whole = one_deletion + kOneName * (names.value_or(0) + sum.count);
            if (names && whole < sum.cost) {
                sum.cost = whole;
                Choose(place, sum, chosen);
            }
        }
        add(place.subscription, place.directory, sum);
    }
    return chosen;
}

}  // namespace Engine::FileNotify
