#include <sdk/files/FileUtils.h>
#include <sdk/files/PasswordFile.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>

namespace SDK {

namespace {

constexpr long kMostBytes = 4096;

}  // namespace

bool ReadPasswordFile(const std::string& path, std::string& password, std::string& error) {
    struct stat info {};
    if (::stat(path.c_str(), &info) != 0 || FileUtils::ReadFile(path, password, kMostBytes) != 0) {
        error = "cannot read the password file " + path + ": " + std::strerror(errno);
        return false;
    }
    if ((info.st_mode & S_IRWXO) != 0) {
        error = "others may use the password file " + path + ": chmod o= " + path;
        return false;
    }
    password = password.substr(0, password.find_first_of("\r\n"));
    if (!password.empty()) return true;
    error = "the password file " + path + " is empty";
    return false;
}

}  // namespace SDK
