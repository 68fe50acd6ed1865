#include "app/HXOSDetect.h"
#include "platform/Platform.h"

#include <gtest/gtest.h>

#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <iterator>

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

// The system refuses to tell its version (uname fails with EPERM in a child).
TEST(HXOSDetect, AVersionThatCannotBeHadIsLoggedAndTakenFor10_5_0)
{
    const auto refused = [] {
        sock_filter filter[] = {
            BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
            BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_uname, 0, 1),
            BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EPERM),
            BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
        };
        const sock_fprog program{static_cast<unsigned short>(std::size(filter)), filter};
        if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 ||
            prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) != 0)
            std::exit(2);
        std::fprintf(stderr, "version %s\n", qPrintable(HXOSDetect::osxVersion()));
        std::exit(0);
    };
    EXPECT_EXIT(refused(), ::testing::ExitedWithCode(0),
                "\\[[0-9]+\\] Unable to obtain system version: 1\nversion 10\\.5\\.0\n");
}

}  // namespace
