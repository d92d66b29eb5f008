#include "base/WorkClock.h"

#include <atomic>

namespace Engine {

namespace {

std::atomic<WorkClock::Source> g_source{nullptr};

}  // namespace

std::time_t WorkClock::Now() {
    const Source source = g_source;
    return source == nullptr ? std::time(nullptr) : source();
}

void WorkClock::SetSource(Source source) {
    g_source = source;
}

}  // namespace Engine
