#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "requests/WatchRequest.h"

namespace Engine::FileNotify {

struct DirNode;

/// A request in force, and how far its path exists. Task's thread only.
struct Watch {
    WatchRequest request;

    /// The deepest directory on the way to the root that exists, and how many components of the
    /// path lead to it. Null for a watch on "/" itself and before it is attached.
    DirNode* attach = nullptr;
    std::size_t depth = 0;
    bool attached = false;

    bool unsettled = true;  ///< its path is to be looked at again
    bool root_present = false;
    bool root_is_directory = false;
    bool started = false;      ///< its root has been looked for
    bool was_present = false;  ///< the root existed once
    bool ended = false;        ///< the root is gone and was not to be watched again
    std::size_t jobs = 0;      ///< directories of its walk that still wait

    const std::string& Id() const { return request.subscription->Id(); }

    /// True when all of the path but the root itself is there.
    bool AtParent() const { return attached && depth + 1 >= request.components.size(); }

    /// The name that is waited for, or of the root; empty for a watch on "/".
    std::string_view NextName() const {
        return request.components.empty() ? std::string_view() : request.components[depth];
    }
};

}  // namespace Engine::FileNotify
