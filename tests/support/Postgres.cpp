#include "support/Postgres.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "support/WaitFor.h"

namespace test {

namespace {

constexpr std::chrono::seconds kDeadline{20};
constexpr const char* kUser = "sentrel";
constexpr const char* kPassword = "a password of the tests";
constexpr uid_t kNobody = 65534;

/// The program of the newest version that is installed.
std::string Program(const std::string& name) {
    std::string newest;
    std::error_code ignored;
    for (const auto& entry : std::filesystem::directory_iterator("/usr/lib/postgresql", ignored)) {
        newest = std::max(newest, entry.path().string());
    }
    return newest + "/bin/" + name;
}

/// PostgreSQL refuses to run as root.
std::vector<std::string> Unprivileged(std::vector<std::string> words) {
    if (::geteuid() != 0) return words;
    const std::string id = std::to_string(kNobody);
    words.insert(words.begin(), {"setpriv", "--reuid", id, "--regid", id, "--clear-groups", "--"});
    return words;
}

}  // namespace

Postgres::Postgres(Disk disk) : disk_(disk) {
    dir_.Write("password", std::string(kPassword) + "\n");
    const uid_t owner = ::geteuid() == 0 ? kNobody : ::geteuid();
    for (const std::string& path : {dir_.Path(), dir_.Path("password")}) {
        EXPECT_EQ(::chown(path.c_str(), owner, static_cast<gid_t>(-1)), 0);
    }
    EXPECT_EQ(::chmod(dir_.Path("password").c_str(), 0600), 0);
    const CommandResult made = RunWords(Unprivileged(
        {Program("initdb"), "-D", dir_.Path("data"), "-U", kUser, "--auth=scram-sha-256",
         "--pwfile=" + dir_.Path("password"), "-E", "UTF8", "--locale=C", "--no-sync"}));
    EXPECT_EQ(made.exit_code, 0) << made.err;
}

bool Postgres::Start() {
    std::vector<std::string> words{Program("postgres"), "-D", dir_.Path("data"),  "-k",
                                   dir_.Path(),         "-c", "listen_addresses="};
    if (disk_ == Disk::kFast) {
        words.insert(words.end(), {"-c", "fsync=off", "-c", "shared_buffers=16MB"});
    }
    process_.Start(Unprivileged(words), dir_.Path("out"));
    std::string error;
    const auto answers = [&] {
        return Database::Open(Location(), Database::Mode::kExisting, error) != nullptr;
    };
    if (WaitFor(answers, Scaled(kDeadline))) return true;
    ADD_FAILURE() << error << TempDir::Read(dir_.Path("out"));
    return false;
}

Database::Location Postgres::Location() const {
    Database::Location location;
    location.host = dir_.Path();
    location.name = "postgres";
    location.user = kUser;
    location.password_file = dir_.Path("password");
    return location;
}

Json::Value Postgres::Config() const {
    const Database::Location location = Location();
    Json::Value json(Json::objectValue);
    json["host"] = location.host;
    json["name"] = location.name;
    json["user"] = location.user;
    json["password_file"] = location.password_file;
    return json;
}

}  // namespace test
