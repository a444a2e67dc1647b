// The C view of the interface (tests/c_api.c, compiled as C99 -pedantic).
#include <gtest/gtest.h>

extern "C" int cvtest_c_roundtrip(void);
extern "C" int cvtest_c_descriptor(void);

TEST(CApi, RoundTripsARecordFromC) { EXPECT_EQ(0, cvtest_c_roundtrip()); }

TEST(CApi, WalksTheDescriptorFromC) { EXPECT_EQ(0, cvtest_c_descriptor()); }
