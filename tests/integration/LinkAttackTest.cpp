// anna against root, in the sandbox: each class of root's operations runs again
// and again on anna's tree while a process of hers swaps folders for links to a
// root-owned decoy outside her tree (tests/programs/linkattack.cpp). Nothing may
// reach the decoy. The figures are printed, so a run by hand shows them.

#include "tests/support/Sandbox.h"

#include <gtest/gtest.h>

#include <QFile>
#include <QRegularExpression>

#include <cstdio>

using namespace Qt::Literals::StringLiterals;

namespace {

const QString kDriver = u"/Applications/Mendwell.app/Contents/MacOS/linkattack"_s;
// Each racy class runs this many attempts, or as many as fit in the time cap on a
// slow or loaded machine; the cap ends the loop but is no verdict. A class that
// managed fewer than kEnoughAttempts, or saw as few of anna's swaps, proves too
// little and fails.
constexpr int kAttempts = 1000;
constexpr int kEnoughAttempts = 100;
const QString kSecondsCap = u"90"_s;

struct Figures {
    int attempts = -1;
    int swaps = -1;
    int escapes = -1;
};

class LinkAttackTest : public ::testing::TestWithParam<const char *> {
protected:
    void SetUp() override
    {
        SKIP_WITHOUT_SANDBOX();
        ASSERT_EQ(box.installInBundle(u"linkattack"_s), kDriver);
        ASSERT_TRUE(box.makeFolder(u"/Users/anna/Library/Caches"_s, true));
        ASSERT_TRUE(box.makeFolder(u"/Users/anna/Library/Preferences"_s, true));
        ASSERT_TRUE(box.makeFolder(u"/Users/anna/Library/Logs"_s, true));
        ASSERT_TRUE(box.makeFolder(u"/Library/Preferences"_s));
    }

    Figures run(const QString &name, const QStringList &environment = {})
    {
        result = box.runAsRoot({kDriver, name, QString::number(kAttempts), kSecondsCap}, environment);
        std::printf("%s", result.out.constData());
        const QRegularExpressionMatch match =
            QRegularExpression(u"attempts=(\\d+) swaps=(\\d+) escapes=(\\d+)"_s)
                .match(QString::fromUtf8(result.out));
        if (!match.hasMatch())
            return {};
        return {match.captured(1).toInt(), match.captured(2).toInt(), match.captured(3).toInt()};
    }

    Sandbox box;
    ProcessResult result;
};

}  // namespace

TEST_P(LinkAttackTest, NothingReachesTheDecoyWhileAnnaSwapsFoldersForLinks)
{
    const Figures figures = run(QString::fromLatin1(GetParam()));
    const std::string output = result.out.toStdString() + result.err.toStdString();
    if (result.out.contains("skipped"))
        GTEST_SKIP() << output;
    EXPECT_GE(figures.attempts, kEnoughAttempts) << output;
    EXPECT_GE(figures.swaps, kEnoughAttempts) << output;
    EXPECT_EQ(figures.escapes, 0) << output;
    EXPECT_EQ(result.exitCode, 0) << output;
}

INSTANTIATE_TEST_SUITE_P(Classes, LinkAttackTest,
                         ::testing::Values("copy", "move", "trash", "trashmatching", "remove", "mkdir", "zip",
                                           "records", "flags", "permissiontool", "trashtool"));

TEST_F(LinkAttackTest, ProtectedFoldersAreRefusedUnderEverySpelling)
{
    EXPECT_EQ(run(u"protected"_s).escapes, 0) << result.out.toStdString();
    for (const char *text : {"Unable to delete path /Users/anna/ because it is a system directory.\n",
                             "Unable to trash path /Users/anna//Library because it is a system directory.\n",
                             "Unable to trash folder contents of path /Users/anna/./Library because it is a "
                             "system directory.\n",
                             "Unable to move path /Library/Preferences/ because it is a system directory.\n"})
        EXPECT_TRUE(result.err.contains(text)) << text << result.err.toStdString();
}

TEST_F(LinkAttackTest, TheRunnerCarriesOutNoHandMadeRequest)
{
    EXPECT_EQ(run(u"runner"_s).escapes, 0) << result.out.toStdString() << result.err.toStdString();
    EXPECT_FALSE(box.exists(u"/Library/Decoy/pwned"_s));
}

TEST_F(LinkAttackTest, RootWithNobodyAtTheConsoleTrashesNothing)
{
    EXPECT_EQ(run(u"noconsole"_s, {u"SUDO_USER="_s}).escapes, 0)
        << result.out.toStdString() << result.err.toStdString();
    EXPECT_EQ(result.err.count("Error in authMoveFile: new path is null\n"), 2) << result.err.toStdString();
}
