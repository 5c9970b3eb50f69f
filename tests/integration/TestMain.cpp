// The test programs' main: with --peer=<role>,<guid> this binary is a peer process of a test
// (a server or client to kill and restart); otherwise it runs the tests.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "tests/integration/IntegrationSupport.h"

int main(int argc, char** argv) {
    const char prefix[] = "--peer=";
    for (int i = 1; i < argc; ++i) {
        if (std::strncmp(argv[i], prefix, sizeof prefix - 1) == 0) {
            return itest::RunPeer(argv[i] + sizeof prefix - 1);
        }
    }
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
