#include <gtest/gtest.h>

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    // Death tests start the program afresh, so threads and global state that other tests
    // leave behind never leak into them. Under an emulator the program cannot start itself
    // again, so there they run in a forked copy instead.
#ifdef KEEL_TEST_UNDER_EMULATOR
    GTEST_FLAG_SET(death_test_style, "fast");
#else
    GTEST_FLAG_SET(death_test_style, "threadsafe");
#endif
    return RUN_ALL_TESTS();
}
