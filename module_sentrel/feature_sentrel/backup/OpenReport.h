#pragma once

#include <string>

#include "base/SentrelDirRule.h"

namespace Framework {
class Task;
}

namespace Engine {

/// Tells of the objects of a protected path that could not be copied in this round. Stateless; the
/// backup task's thread.
class OpenReport {
  public:
    /// Puts them into the status as they are now; none takes the entry off.
    static void Publish(const SentrelDirRule& rule);

    /// One alarm of `sender` that names the first of them, and a log record.
    static void Alarm(const SentrelDirRule& rule, Framework::Task& sender);

    /// How many they are and the first of them with the reasons, in at most 4 KiB.
    static std::string Describe(const SentrelDirRule& rule);
};

}  // namespace Engine
