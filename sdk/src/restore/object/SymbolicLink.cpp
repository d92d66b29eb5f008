#include "restore/object/SymbolicLink.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>

#include "sdk/files/FileDescriptor.h"

namespace SDK {

FailedStep SymbolicLink::Read(int directory, const std::string& name) {
    const FileDescriptor link(::openat(directory, name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    if (!link.IsOpen()) return {"open the link", errno};
    std::array<char, PATH_MAX> text{};
    const ssize_t length = ::readlinkat(link.Get(), "", text.data(), text.size());
    // An open object that is not a link gives ENOENT.
    if (length < 0) return {"read the link", errno == ENOENT ? EINVAL : errno};
    text_.assign(text.data(), static_cast<std::size_t>(length));
    return ReadAttributes(link.Get(), OpenedAs::kPath, attributes_);
}

bool SymbolicLink::IsAs(const SymbolicLink& wanted) const {
    return text_ == wanted.text_ && !StatDiffers(wanted.attributes_.info, attributes_.info) &&
           !AttributeComparison::Differ(attributes_.extended, wanted.attributes_.extended);
}

}  // namespace SDK
