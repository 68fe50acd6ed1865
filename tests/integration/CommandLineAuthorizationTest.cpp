// The command-line repair never shows a password dialog unless "-hotkey" asks
// for one: run as anna with polkit for real, where an agent stands ready to ask.

#include "tests/support/PolkitNamespace.h"

#include <gtest/gtest.h>

namespace {

const QString kProgram = QStringLiteral(MENDWELL_TEST_PROGRAMS_DIR "/app-commandline-auth");
const QString kInBundle = QStringLiteral("/Applications/Mendwell.app/Contents/MacOS/app-commandline-auth");
const QString kLocked = QStringLiteral("/Users/anna/Library/Caches/Adobe/Locked/cache.db");

}  // namespace

TEST(CommandLineAuthorizationTest, OnlyHotkeyLetsTheRepairAskForAPassword)
{
    SKIP_WITHOUT_POLKIT();
    PolkitNamespace polkit;
    ASSERT_TRUE(polkit.installInBundle(kProgram));
    ASSERT_TRUE(polkit.makeFolder(QStringLiteral("/Users/anna/Library/Caches/Adobe"), true));
    ASSERT_TRUE(polkit.makeFolder(QStringLiteral("/Users/anna/Library/Caches/Adobe/Locked"), false));
    ASSERT_TRUE(polkit.writeFile(kLocked, "root's", false));

    PolkitNamespace::Result run = polkit.runAsUser({kInBundle, kLocked});
    std::string output = run.output.toStdString();
    EXPECT_EQ(run.passwordPrompts, 0) << output;
    EXPECT_NE(output.find("Unable to authorize"), std::string::npos) << output;
    EXPECT_NE(output.find("remove 0"), std::string::npos) << output;
    EXPECT_TRUE(polkit.exists(kLocked));

    // The same program with -hotkey does ask, and then acts.
    run = polkit.runAsUser({kInBundle, kLocked, QStringLiteral("-hotkey")});
    output = run.output.toStdString();
    EXPECT_EQ(run.passwordPrompts, 1) << output;
    EXPECT_NE(output.find("remove 1"), std::string::npos) << output;
    EXPECT_FALSE(polkit.exists(kLocked));
}
