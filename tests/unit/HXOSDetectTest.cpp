#include "app/HXOSDetect.h"
#include "platform/Platform.h"

#include <gtest/gtest.h>

namespace {

TEST(HXOSDetect, OldPackedVersionsDecodeDigitByDigit)
{
    for (const auto &[value, major, minor, bugFix] :
         {std::tuple{0x1039u, 10L, 3L, 9L}, std::tuple{0x1028u, 10L, 2L, 8L},
          std::tuple{0x0961u, 9L, 6L, 1L}}) {
        const HXSystemVersion version = HXOSDetect::decodeSystemVersionBCD(value);
        EXPECT_EQ(version.major, major) << std::hex << value;
        EXPECT_EQ(version.minor, minor) << std::hex << value;
        EXPECT_EQ(version.bugFix, bugFix) << std::hex << value;
    }
}

TEST(HXOSDetect, HigherThanMeansAtLeastAndTheBugFixCountsOnlyWithinTheSameMinor)
{
    const HXSystemVersion running{10, 8, 4};
    EXPECT_TRUE(HXOSDetect::isAtLeast(running, {10, 8, 4}));
    EXPECT_TRUE(HXOSDetect::isAtLeast(running, {10, 7, 9}));
    EXPECT_TRUE(HXOSDetect::isAtLeast(running, {9, 9, 9}));
    EXPECT_FALSE(HXOSDetect::isAtLeast(running, {10, 8, 5}));
    EXPECT_FALSE(HXOSDetect::isAtLeast(running, {10, 9, 0}));
    EXPECT_FALSE(HXOSDetect::isAtLeast(running, {11, 0, 0}));

    long major = -1;
    long minor = -1;
    HXOSDetect::getSystemVersion(&major, &minor, nullptr);
    EXPECT_TRUE(HXOSDetect::isOSVersionHigherThan(major, minor, 0));
    EXPECT_EQ(HXOSDetect::osxVersion(), platform::osVersionString());
}

}  // namespace
