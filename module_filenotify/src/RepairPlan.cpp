#include "RepairPlan.h"

#include <algorithm>
#include <iterator>
#include <map>
#include <utility>

namespace Engine::FileNotify {

namespace {

// What it takes for each name of a directory that is put back as a whole, to compare it or to put
// it back, beside what one loss costs. Measured on small files.
constexpr std::chrono::nanoseconds kOneName = std::chrono::microseconds(100);
// Fewer are put back one by one: a directory put back as a whole also undoes, without a word, what
// else has been changed in it.
constexpr std::size_t kFewest = 16;

struct Place {
    std::shared_ptr<const WatchTicket> ticket;
    std::string directory;

    /// Inner directories come first.
    bool operator<(const Place& other) const {
        if (directory.size() != other.directory.size()) {
            return directory.size() > other.directory.size();
        }
        return directory != other.directory ? directory < other.directory : ticket < other.ticket;
    }
};

struct Losses {
    std::size_t count = 0;
    std::chrono::nanoseconds cost{0};  ///< of the cheapest way found so far
    std::chrono::steady_clock::time_point oldest = std::chrono::steady_clock::time_point::max();
};

using Chosen = std::vector<PendingChange>;

/// The directory that holds `path`; empty when that is outside the watch.
std::string Holder(const WatchTicket& ticket, const std::string& path) {
    const std::string& id = ticket.Id();
    if (path.size() <= id.size()) return {};
    return path.substr(0, std::max(path.rfind('/'), std::size_t{id == "/"}));
}

void Choose(const Place& place, const Losses& losses, Chosen& chosen) {
    const std::string inside = place.directory == "/" ? "/" : place.directory + "/";
    chosen.erase(std::remove_if(chosen.begin(), chosen.end(),
                                [&](const PendingChange& inner) {
                                    return inner.ticket == place.ticket &&
                                           inner.path.compare(0, inside.size(), inside) == 0;
                                }),
                 chosen.end());
    chosen.push_back({place.ticket, place.directory, {}, IN_ATTRIB | IN_ISDIR, losses.oldest});
}

}  // namespace

std::vector<PendingChange> PlanRepairs(const std::vector<const PendingChange*>& losses,
                                       const NamesBelow& names_below,
                                       std::chrono::nanoseconds one_loss) {
    std::map<Place, Losses> places;
    const auto add = [&](const std::shared_ptr<const WatchTicket>& ticket, const std::string& path,
                         const Losses& more) {
        std::string holder = Holder(*ticket, path);
        if (holder.empty()) return;
        Losses& sum = places[{ticket, std::move(holder)}];
        sum.count += more.count;
        sum.cost += more.cost;
        sum.oldest = std::min(sum.oldest, more.oldest);
    };
    for (const PendingChange* loss : losses) {
        add(loss->ticket, loss->path, {1, one_loss, loss->read_time});
    }
    Chosen chosen;
    // Outer directories, which come later, are added on the way.
    for (auto& [place, sum] : places) {
        if (sum.count >= kFewest) {
            const auto names = names_below(*place.ticket, place.directory);
            const auto whole = one_loss + kOneName * (names.value_or(0) + sum.count);
            if (names && whole < sum.cost) {
                sum.cost = whole;
                Choose(place, sum, chosen);
            }
        }
        add(place.ticket, place.directory, sum);
    }
    return chosen;
}

}  // namespace Engine::FileNotify
