#include <gtest/gtest.h>

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    // Death tests start the program afresh; an emulated one cannot, so there they fork.
#ifdef KEEL_TEST_UNDER_EMULATOR
    GTEST_FLAG_SET(death_test_style, "fast");
#else
    GTEST_FLAG_SET(death_test_style, "threadsafe");
#endif
    return RUN_ALL_TESTS();
}
