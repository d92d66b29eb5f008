#pragma once

#include <json/value.h>

#include <string>

#include "base/SentrelDirRule.h"

namespace Engine {

// What the file-notify module says about its watches. Thread-safe; never waits.

/// The answer to "filenotify.watches"; null when there is no answer.
Json::Value AskForWatches();

/// The inotify task's watch of that id in such an answer, or null.
Json::Value FindWatch(const Json::Value& watches, const std::string& id);

/// Whether changes of what a rule protects are announced.
enum class Watching {
    kReady,    ///< they are, as far as they can be watched at all
    kWalking,  ///< not everywhere yet: the tree is still being walked
    kMissing,  ///< not yet, but the inotify task may be about to ask for it
    kUnknown,  ///< there is no inotify task or no answer: there is nothing to wait for
};
Watching WatchingOf(const SentrelDirRule& rule);

}  // namespace Engine
