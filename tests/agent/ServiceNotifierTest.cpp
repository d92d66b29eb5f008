#include <gtest/gtest.h>
#include <process/ServiceNotifier.h>
#include <sdk/files/FileDescriptor.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <array>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <string>

#include "support/TempDir.h"
#include "support/WaitFor.h"

namespace {

using namespace std::chrono_literals;

/// Stands in for the service manager, with a watchdog interval of 40 ms.
class ServiceNotifier : public testing::Test {
  protected:
    void SetUp() override {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        const std::string path = dir_.Path("notify");
        std::strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
        ASSERT_EQ(::bind(socket_.Get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
        ::setenv("NOTIFY_SOCKET", path.c_str(), 1);
        ::setenv("WATCHDOG_USEC", "40000", 1);
        ::unsetenv("WATCHDOG_PID");
    }

    /// Counts the messages that have come since the last call.
    int Received(const std::string& message) {
        int count = 0;
        std::array<char, 256> text{};
        for (ssize_t got = 0; (got = ::recv(socket_.Get(), text.data(), text.size(), 0)) > 0;) {
            count += std::string(text.data(), static_cast<std::size_t>(got)) == message ? 1 : 0;
        }
        return count;
    }

    test::TempDir dir_;
    SDK::FileDescriptor socket_{::socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)};
};

TEST_F(ServiceNotifier, StuckThread_StopsTheBeatUntilItGoesOn) {
    std::atomic<bool> is_stuck{false};
    std::atomic<int> checks{0};
    Agent::ServiceNotifier notifier([&] {
        ++checks;
        return is_stuck ? std::string("task task") : std::string();
    });
    const auto check_twice = [&] {
        const int before = checks;
        return test::WaitFor([&] { return checks >= before + 2; }, 20s);
    };
    notifier.Ready();
    const auto beats = [&] { return Received("WATCHDOG=1") > 0; };
    EXPECT_TRUE(test::WaitFor(beats, 20s));
    is_stuck = true;
    ASSERT_TRUE(check_twice());
    Received("");
    ASSERT_TRUE(check_twice());
    EXPECT_EQ(Received("WATCHDOG=1"), 0);
    is_stuck = false;
    EXPECT_TRUE(test::WaitFor(beats, 20s));
    notifier.Stopping();
    EXPECT_EQ(Received("STOPPING=1"), 1);
}

}  // namespace
