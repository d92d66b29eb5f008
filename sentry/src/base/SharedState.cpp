#include "base/SharedState.h"

#include <sys/mman.h>

#include <new>

namespace Sentry {

static_assert(std::atomic<bool>::is_always_lock_free && std::atomic<int>::is_always_lock_free);

SharedState::Mapped SharedState::Map() {
    void* memory = ::mmap(nullptr, sizeof(SharedState), PROT_READ | PROT_WRITE,
                          MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    return Mapped(memory == MAP_FAILED ? nullptr : new (memory) SharedState());
}

void SharedState::Unmap::operator()(SharedState* state) const {
    ::munmap(state, sizeof(SharedState));
}

}  // namespace Sentry
