// Linked into every test program: proves that the program really runs under the Windows
// personality that ctest asked for, so that a broken Wine set-up cannot pass silently.
#include "tests/common/TestSupport.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

TEST(WinePersonality, MatchesWhatTheRunAskedFor)
{
    const char* expected = std::getenv("MORROWGATE_EXPECTED_WINDOWS");
    if (expected == nullptr) {
        GTEST_SKIP() << "not started by ctest";
    }
    EXPECT_EQ(IsWindows8OrGreater(), std::string(expected) == "win10");
}
