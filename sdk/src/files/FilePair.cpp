#include "sdk/files/FilePair.h"

#include "files/FileContent.h"

namespace SDK {

namespace {

FileDescriptor OpenFile(const PathAnchor::Entry& entry) {
    struct stat info {};
    if (!entry.IsOpen()) return {};
    return FileDescriptor(FileContent::Open(entry.directory.Get(), entry.name, info));
}

FilePair::FileState StateOf(int file) {
    struct stat info {};
    return ::fstat(file, &info) == 0 ? FilePair::FileState::Of(info) : FilePair::FileState();
}

}  // namespace

FilePair::FileState FilePair::FileState::Of(const struct stat& info) {
    return {info.st_dev, info.st_ino, info.st_size, info.st_ctim.tv_sec, info.st_ctim.tv_nsec};
}

FilePair::FilePair(const PathAnchor::Entry& live, const PathAnchor::Entry& copy)
    : live_(OpenFile(live)), copy_(OpenFile(copy)) {}

FilePair::State FilePair::Now() const {
    return {StateOf(live_.Get()), StateOf(copy_.Get())};
}

int FilePair::IsEqual(off_t begin, off_t end) const {
    return FileContent::IsEqual(live_.Get(), copy_.Get(), end, begin);
}

}  // namespace SDK
