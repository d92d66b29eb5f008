// Decides which attributes count as a difference. ExtendedAttributeAccess reads and sets them.
#include "sdk/restore/AttributeComparison.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <string_view>

#include "restore/object/ExtendedAttributes.h"
#include "sdk/files/FileDescriptor.h"
#include "sdk/restore/ObjectRestorer.h"
#include "sdk/text/StrUtils.h"

namespace SDK {

namespace {

/// Prefixes of what the system sets on its own, and of what rsync keeps for itself.
constexpr std::array<std::string_view, 6> kLeftOut = {"security.selinux", "security.ima",
                                                      "security.evm",     "security.SMACK64",
                                                      "trusted.overlay.", "user.rsync.%"};

unsigned KindOf(std::string_view name) {
    if (StrUtils::BeginsWith(name, "user.")) return kUserAttributes;
    if (StrUtils::BeginsWith(name, "trusted.")) return kTrustedAttributes;
    if (StrUtils::BeginsWith(name, "security.")) return kSecurityAttributes;
    return kAcls;
}

/// The attributes of these kinds that are compared.
ExtendedAttributeAccess::Filter Compared(unsigned kinds) {
    return [kinds](std::string_view name) {
        if (!IsRestoredAttribute(name) || (KindOf(name) & kinds) == 0) return false;
        for (const std::string_view prefix : kLeftOut) {
            if (StrUtils::BeginsWith(name, prefix)) return false;
        }
        return true;
    };
}

/// An unnamed file, or one with a name where the file system cannot do without.
FileDescriptor MakeProbe(int directory, std::string& name) {
    FileDescriptor probe(::openat(directory, ".", O_TMPFILE | O_RDWR | O_CLOEXEC, 0600));
    if (probe.IsOpen()) return probe;
    name = std::string(ObjectRestorer::kTemporaryPrefix) + "attributes";
    ::unlinkat(directory, name.c_str(), 0);
    return FileDescriptor(::openat(directory, name.c_str(),
                                   O_CREAT | O_EXCL | O_NOFOLLOW | O_RDWR | O_CLOEXEC, 0600));
}

/// An attribute of each kind with a value that the kernel accepts: the capability to bind low
/// ports; an ACL that lets user 0 read.
const std::array<std::pair<const char*, std::string>, 4>& Samples() {
    using namespace std::string_literals;
    static const std::array<std::pair<const char*, std::string>, 4> samples = {{
        {"user.morvane.probe", "1"},
        {"trusted.morvane.probe", "1"},
        {"security.capability", "\1\0\0\2\0\4\0\0\0\0\0\0\0\0\0\0\0\0\0\0"s},
        {"system.posix_acl_access",
         "\2\0\0\0\1\0\6\0\xff\xff\xff\xff\2\0\4\0\0\0\0\0\4\0\0\0\xff\xff\xff\xff"
         "\x10\0\4\0\xff\xff\xff\xff\x20\0\0\0\xff\xff\xff\xff"s},
    }};
    return samples;
}

/// Without CAP_SYS_ADMIN, as in the agent's systemd unit, a process sees no trusted attribute of
/// any object, so it misses none in the copies.
bool IsHidden(unsigned kind, int error) {
    return kind == kTrustedAttributes && error == EPERM;
}

}  // namespace

ExtendedAttributes AttributeComparison::Read(int directory, const std::string& name,
                                             unsigned kinds) {
    ExtendedAttributes found;
    if (kinds == kNoAttributes) return found;
    const ExtendedAttributeAccess access(directory, name);
    if (access.Read(found, Compared(kinds)) != 0) found.is_cut = true;
    return found;
}

bool AttributeComparison::Differ(const ExtendedAttributes& live, const ExtendedAttributes& copy) {
    return live.values != copy.values || (live.is_cut && !copy.is_cut);
}

int AttributeComparison::Make(int directory, const std::string& name,
                              const ExtendedAttributes& wanted, unsigned kinds) {
    return ExtendedAttributeAccess(directory, name).Make(wanted, Compared(kinds));
}

unsigned AttributeComparison::TakenIn(int directory) {
    std::string name;
    const FileDescriptor probe = MakeProbe(directory, name);
    if (!probe.IsOpen()) return kNoAttributes;
    const ExtendedAttributeAccess access(probe.Get(), false);
    unsigned taken = kNoAttributes;
    for (const auto& [attribute, value] : Samples()) {
        ExtendedAttributes wanted;
        wanted.values.emplace(attribute, value);
        ExtendedAttributes found;
        const bool is_set = access.Make(wanted) == 0;
        if (IsHidden(KindOf(attribute), is_set ? 0 : errno) ||
            (is_set && access.Read(found) == 0 && found.Has(attribute))) {
            taken |= KindOf(attribute);
        }
    }
    if (!name.empty()) ::unlinkat(directory, name.c_str(), 0);
    return taken;
}

}  // namespace SDK
