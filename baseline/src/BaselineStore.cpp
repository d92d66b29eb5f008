// Owns the files of the baselines and the key that signs them. It must not decide when a state is
// approved.
#include "baseline/BaselineStore.h"

#include <dirent.h>
#include <sdk/files/DirUtils.h>
#include <sdk/files/FileUtils.h>
#include <sdk/files/Sha256.h>
#include <sdk/text/CryptoCodeUtils.h>
#include <sdk/text/StrUtils.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "baseline/BackupMark.h"

namespace Baseline {

namespace {

constexpr mode_t kPrivate = S_IRWXU;
constexpr long kMostText = 4096;
constexpr const char* kManifestSuffix = ".manifest";
constexpr const char* kCopying = "/copying";
constexpr const char* kBackupId = "/backup-id";
constexpr std::size_t kNameDigits = 16;

std::string HexOf(const std::string& text) {
    SDK::Sha256 hash;
    hash.Update(text.data(), text.size());
    return hash.Hex();
}

/// What is signed: no other text that somebody has signed with the key may pass for a manifest.
std::string Statement(std::string_view manifest) {
    SDK::Sha256 hash;
    hash.Update(manifest.data(), manifest.size());
    return "baseline manifest 1\n" + hash.Hex() + "\n";
}

std::string Text(const std::string& file) {
    std::string text;
    SDK::FileUtils::ReadFile(file, text, kMostText);
    return text;
}

bool Exists(const std::string& file) {
    return ::access(file.c_str(), F_OK) == 0;
}

std::vector<std::string> NamesIn(const std::string& directory) {
    std::vector<std::string> names;
    const std::unique_ptr<DIR, int (*)(DIR*)> stream(::opendir(directory.c_str()), &::closedir);
    if (stream == nullptr) return names;
    while (const dirent* entry = ::readdir(stream.get())) names.emplace_back(entry->d_name);
    return names;
}

std::vector<unsigned int> NumbersIn(const std::string& directory) {
    std::vector<unsigned int> numbers;
    for (const std::string& name : NamesIn(directory)) {
        if (!SDK::StrUtils::EndsWith(name, kManifestSuffix)) continue;
        char* end = nullptr;
        const unsigned long number = std::strtoul(name.c_str(), &end, 10);
        if (number > 0 && std::strcmp(end, kManifestSuffix) == 0) {
            numbers.push_back(static_cast<unsigned int>(number));
        }
    }
    std::sort(numbers.begin(), numbers.end());
    return numbers;
}

std::string ManifestFile(const std::string& directory, unsigned int number) {
    return directory + "/" + std::to_string(number) + kManifestSuffix;
}

std::string SignatureFile(const std::string& directory, unsigned int number) {
    return directory + "/" + std::to_string(number) + ".signature";
}

}  // namespace

std::unique_ptr<SDK::SigningKey> BaselineStore::Key(std::string& error) const {
    const std::string private_file = directory_ + "/signing.key";
    const std::string public_file = directory_ + "/signing.pub";
    if (!HasKey()) {
        const auto key = SDK::SigningKey::Generate();
        if (key == nullptr || SDK::DirUtils::MakeDirs(directory_, kPrivate) != 0 ||
            SDK::FileUtils::WriteFile(private_file, key->PrivatePem(), false) != 0 ||
            SDK::FileUtils::WriteFile(public_file, key->PublicPem(), false) != 0) {
            error = "cannot make a key in " + directory_ + ": " + std::strerror(errno);
            return nullptr;
        }
    }
    const std::string file = Exists(private_file) ? private_file : public_file;
    auto key = SDK::SigningKey::Read(Text(file));
    if (key == nullptr) error = file + " is no Ed25519 key";
    return key;
}

bool BaselineStore::HasKey() const {
    return Exists(directory_ + "/signing.key") || Exists(directory_ + "/signing.pub");
}

std::string BaselineStore::WhyUnsigned(const SDK::SigningKey* key) const {
    if (key == nullptr && !HasKey()) return "";  // Commit makes a pair
    std::string error;
    const auto own = Key(error);
    if (own == nullptr) return error;
    if (key == nullptr) {
        return own->CanSign() ? "" : "the private key is not in " + directory_;
    }
    const bool fits = key->CanSign() && key->IsPairOf(*own);
    return fits ? "" : "the key does not belong to " + directory_ + "/signing.pub";
}

std::string BaselineStore::NameOf(const std::string& real_path, const std::string& backup_path) {
    return HexOf(real_path + '\0' + backup_path).substr(0, kNameDigits);
}

std::string BaselineStore::DirectoryOf(const std::string& real_path,
                                       const std::string& backup_path) const {
    return directory_ + "/" + NameOf(real_path, backup_path);
}

std::vector<unsigned int> BaselineStore::Numbers(const std::string& real_path,
                                                 const std::string& backup_path) const {
    return NumbersIn(DirectoryOf(real_path, backup_path));
}

Generation BaselineStore::Newest(const std::string& real_path,
                                 const std::string& backup_path) const {
    const std::string directory = DirectoryOf(real_path, backup_path);
    const std::vector<unsigned int> numbers = NumbersIn(directory);
    return numbers.empty() ? Generation() : Load(directory, numbers.back());
}

Generation BaselineStore::Get(const std::string& real_path, const std::string& backup_path,
                              unsigned int number) const {
    return Load(DirectoryOf(real_path, backup_path), number);
}

bool BaselineStore::HasAny() const {
    const std::vector<std::string> names = NamesIn(directory_);
    return std::any_of(names.begin(), names.end(), [this](const std::string& name) {
        const std::string one = directory_ + "/" + name;
        return name.front() != '.' && (!NumbersIn(one).empty() || Exists(one + kCopying));
    });
}

std::vector<Generation> BaselineStore::All() const {
    std::vector<Generation> all;
    for (const std::string& name : NamesIn(directory_)) {
        const std::vector<unsigned int> numbers = NumbersIn(directory_ + "/" + name);
        if (!numbers.empty()) all.push_back(Load(directory_ + "/" + name, numbers.back()));
    }
    return all;
}

std::vector<Generation> BaselineStore::AllKept() const {
    std::vector<Generation> kept;
    for (const std::string& name : NamesIn(directory_)) {
        const std::string directory = directory_ + "/" + name;
        for (const unsigned int number : NumbersIn(directory)) {
            kept.push_back(Load(directory, number));
        }
    }
    return kept;
}

Generation BaselineStore::Load(const std::string& directory, unsigned int number) const {
    Generation generation;
    generation.number = number;
    const auto key = Key(generation.problem);
    if (key == nullptr) return generation;
    auto manifest = Manifest::Open(ManifestFile(directory, number), generation.problem);
    if (manifest == nullptr) return generation;
    if (!key->IsSignature(Statement(manifest->Bytes()), Text(SignatureFile(directory, number)))) {
        generation.problem =
            "the signature of " + ManifestFile(directory, number) + " does not fit";
        return generation;
    }
    generation.manifest = std::move(manifest);
    return generation;
}

int BaselineStore::Sign(const std::string& file, const std::string& signature_file,
                        const SDK::SigningKey* key, std::string& error) const {
    error = WhyUnsigned(key);
    if (!error.empty()) return -1;
    const auto own = Key(error);
    const auto manifest = Manifest::Open(file, error);
    if (own == nullptr || manifest == nullptr) return -1;
    const std::string signature = (key != nullptr ? *key : *own).Sign(Statement(manifest->Bytes()));
    if (signature.empty()) {
        error = "cannot sign the manifest";
        return -1;
    }
    if (SDK::FileUtils::WriteFile(signature_file, signature, false) == 0) return 0;
    error = "cannot write " + signature_file + ": " + std::strerror(errno);
    return -1;
}

Generation BaselineStore::Commit(const ManifestWriter& writer, const ManifestInfo& info,
                                 std::size_t kept, const SDK::SigningKey* key) const {
    Generation failed;
    const std::string directory = DirectoryOf(info.real_path, info.backup_path);
    std::vector<unsigned int> numbers = NumbersIn(directory);
    const unsigned int number = numbers.empty() ? 1 : numbers.back() + 1;
    const std::string unfinished = directory + "/unfinished";
    if (SDK::DirUtils::MakeDirs(directory, kPrivate) != 0 || writer.Write(info, unfinished) != 0) {
        failed.problem = "cannot write " + unfinished + ": " + std::strerror(errno);
        return failed;
    }
    if (Sign(unfinished, SignatureFile(directory, number), key, failed.problem) != 0) {
        return failed;
    }
    if (std::rename(unfinished.c_str(), ManifestFile(directory, number).c_str()) != 0) {
        failed.problem = std::string("cannot rename the manifest: ") + std::strerror(errno);
        return failed;
    }
    ::unlink((directory + kCopying).c_str());
    numbers.push_back(number);
    for (std::size_t i = 0; i + kept < numbers.size(); ++i) {
        ::unlink(ManifestFile(directory, numbers[i]).c_str());
        ::unlink(SignatureFile(directory, numbers[i]).c_str());
    }
    return Load(directory, number);
}

int BaselineStore::Forget(const std::string& real_path, const std::string& backup_path) const {
    return SDK::DirUtils::DeleteBeneath(directory_, NameOf(real_path, backup_path));
}

int BaselineStore::MarkCopying(const std::string& real_path, const std::string& backup_path) const {
    const std::string directory = DirectoryOf(real_path, backup_path);
    if (SDK::DirUtils::MakeDirs(directory, kPrivate) != 0) return -1;
    return SDK::FileUtils::WriteFile(directory + kCopying, "", false);
}

bool BaselineStore::IsCopying(const std::string& real_path, const std::string& backup_path) const {
    return Exists(DirectoryOf(real_path, backup_path) + kCopying);
}

int BaselineStore::MarkBackup(const std::string& real_path, const std::string& backup_path) const {
    const std::string directory = DirectoryOf(real_path, backup_path);
    if (SDK::DirUtils::MakeDirs(directory, kPrivate) != 0) return -1;
    const std::string marker = backup_path + "/" + kBackupMark;
    std::string id = Text(marker);
    if (id.empty()) {
        id = SDK::CryptoCodeUtils::GenerateUUID();
        if (SDK::FileUtils::WriteFile(marker, id, false) != 0) return -1;
    }
    return SDK::FileUtils::WriteFile(directory + kBackupId, id, false);
}

bool BaselineStore::IsMarkedBackup(const std::string& real_path,
                                   const std::string& backup_path) const {
    return HasBackupId(backup_path, BackupId(real_path, backup_path));
}

std::string BaselineStore::BackupId(const std::string& real_path,
                                    const std::string& backup_path) const {
    return Text(DirectoryOf(real_path, backup_path) + kBackupId);
}

bool BaselineStore::HasBackupId(const std::string& backup_path, const std::string& id) {
    return id.empty() || Text(backup_path + "/" + kBackupMark) == id;
}

}  // namespace Baseline
