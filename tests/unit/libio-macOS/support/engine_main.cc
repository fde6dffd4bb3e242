/// The main program of the engine's tests: the process as the engine wants it.
#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>

int main(int argc, char** argv) {
    (void)std::signal(SIGPIPE, SIG_IGN);
    (void)setenv("RVIO_DEBUG", "1", 1);
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
