// The C view of the interface (tests/c_api.c, compiled as C99 -pedantic).
#include <gtest/gtest.h>

extern "C" int cvtest_c_api(void);

TEST(CApi, RoundTripAndDescriptorFromC) { EXPECT_EQ(0, cvtest_c_api()); }
