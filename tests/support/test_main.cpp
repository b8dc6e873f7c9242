// Test entry point shared by every test binary: GoogleTest plus a watchdog
// that aborts a hung test with a clear message instead of blocking CI.
#include <gtest/gtest.h>

#include <unistd.h>
#include <csignal>
#include <cstdio>
#include <cstdlib>

namespace {

void OnWatchdog(int) {
    static const char kMsg[] = "\n*** test watchdog expired: a test hung ***\n";
    (void)!write(STDERR_FILENO, kMsg, sizeof(kMsg) - 1);
    std::abort();
}

}  // namespace

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    unsigned seconds = 240;
    if (const char* env = std::getenv("MOX_TEST_WATCHDOG")) {
        int value = std::atoi(env);
        if (value > 0) seconds = static_cast<unsigned>(value);
    }
    std::signal(SIGALRM, OnWatchdog);
    alarm(seconds);
    return RUN_ALL_TESTS();
}
