// Owns: the records that were read and not handled yet, and their bytes.
// Must not own: the descriptor (NotifyCore), nor the meaning of a record (EventTranslator).
// Thread: the task's.
// Ownership passes: never; a record is borrowed until Pop.

#include "kernel/InotifyReader.h"

#include <cerrno>
#include <cstring>
#include <utility>

#include "kernel/InotifyDescriptor.h"

namespace Engine::FileNotify {

std::size_t InotifyReader::Fill() {
    scratch_.resize(kReadBytes);
    std::size_t count = 0;
    emptied_ = false;
    while (buffered_ < kMaxBufferedBytes) {
        const ssize_t got = descriptor_.Read(scratch_.data(), scratch_.size());
        if (got < 0 && errno == EINTR) continue;
        emptied_ = got <= 0;
        if (emptied_) break;
        const auto size = static_cast<std::size_t>(got);
        Batch batch = TakeBatch(size);
        std::memcpy(batch.bytes.get(), scratch_.data(), size);
        ParseRecords({batch.bytes.get(), size}, batch.records);
        batch.read_time = std::chrono::steady_clock::now();
        if (batch.records.empty()) continue;
        count += batch.records.size();
        unhandled_ += batch.records.size();
        buffered_ += size;
        batches_.push_back(std::move(batch));
        // A short read has emptied the queue; reading again would waste a system call.
        emptied_ = size < kReadBytes / 2;
        if (emptied_) break;
    }
    return count;
}

InotifyReader::Batch InotifyReader::TakeBatch(std::size_t size) {
    if (spare_.capacity >= size) return std::exchange(spare_, {});
    Batch batch;
    batch.bytes.reset(new char[size]);  // uninitialised on purpose
    batch.capacity = size;
    return batch;
}

const InotifyRecord* InotifyReader::Front() const {
    return batches_.empty() ? nullptr : &batches_.front().records[batches_.front().next];
}

void InotifyReader::Pop() {
    Batch& batch = batches_.front();
    --unhandled_;
    if (++batch.next < batch.records.size()) return;
    if (batch.capacity > spare_.capacity) {
        batch.records.clear();
        batch.next = 0;
        spare_ = std::move(batch);
    }
    batches_.pop_front();
    if (batches_.empty()) buffered_ = 0;
}

void InotifyReader::Clear() {
    batches_.clear();
    buffered_ = 0;
    unhandled_ = 0;
}

const InotifyRecord* InotifyReader::Peek(std::size_t distance) const {
    for (const Batch& batch : batches_) {
        const std::size_t left = batch.records.size() - batch.next;
        if (distance < left) return &batch.records[batch.next + distance];
        distance -= left;
    }
    return nullptr;
}

const InotifyRecord* InotifyReader::FindAhead(std::uint32_t cookie, std::uint32_t mask) const {
    for (std::size_t distance = 1; distance <= kLookAhead; ++distance) {
        const InotifyRecord* record = Peek(distance);
        if (record == nullptr) return nullptr;
        if (record->cookie == cookie && (record->mask & mask) == mask) return record;
    }
    return nullptr;
}

}  // namespace Engine::FileNotify
