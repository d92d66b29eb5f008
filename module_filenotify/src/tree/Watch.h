#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "requests/WatchRequest.h"

namespace Engine::FileNotify {

struct DirNode;

/// An applied watch request and the state of its path. Owned by WatchMatcher. Not thread-safe.
struct Watch {
    WatchRequest request;

    /// The deepest existing directory above the root, and the number of path components that lead
    /// to it. Null for a watch on "/" and until it is attached.
    DirNode* attach = nullptr;
    std::size_t depth = 0;
    bool attached = false;

    bool unresolved = true;  ///< its path may have changed; RootTracker must resolve it again
    bool root_present = false;
    bool root_is_directory = false;
    bool started = false;      ///< its path was resolved once
    bool was_present = false;  ///< the root existed once
    bool ended = false;        ///< the root is gone and the request has no `rewatch`
    std::size_t jobs = 0;      ///< queued directories of its walk

    const std::string& Id() const { return request.subscription->Id(); }

    /// True when all directories above the root exist.
    bool AtParent() const { return attached && depth + 1 >= request.components.size(); }

    /// The path component behind `attach`; empty for a watch on "/".
    std::string_view NextName() const {
        return request.components.empty() ? std::string_view() : request.components[depth];
    }
};

}  // namespace Engine::FileNotify
