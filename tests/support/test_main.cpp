#include <gtest/gtest.h>

int main(int argc, char** argv) {
    // Death tests fork; re-executing the binary keeps them sound when other
    // tests of the same binary have started threads.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
