// Privileged operations as a user, with polkit running for real: the password is
// asked once, every operation then runs through the privileged runner, and the
// right cannot be used by anyone else.

#include "tests/support/PolkitNamespace.h"

#include <gtest/gtest.h>

#include <QFile>

#include <pwd.h>
#include <unistd.h>

namespace {

const QString kClient = QStringLiteral(MENDWELL_TEST_PROGRAMS_DIR "/authclient");
const QString kClientInBundle = QStringLiteral("/Applications/Mendwell.app/Contents/MacOS/authclient");
const QString kAdobe = QStringLiteral("/Users/anna/Library/Caches/Adobe");
const QString kLocked = kAdobe + QStringLiteral("/Locked");

class HXAuthorizationPolkitTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        SKIP_WITHOUT_POLKIT();
        ASSERT_TRUE(env.makeFolder(kAdobe, true));
        ASSERT_TRUE(env.makeFolder(kLocked, false));  // root's: anna cannot change it
        for (const char *name : {"remove.txt", "move.txt", "trash.txt"})
            ASSERT_TRUE(env.writeFile(kLocked + QLatin1Char('/') + QLatin1String(name), "root's", false));
        ASSERT_TRUE(env.makeFolder(kLocked + QStringLiteral("/tree/inner"), false));
        ASSERT_TRUE(env.installInBundle(kClient));
    }

    PolkitNamespace env;
};

}  // namespace

TEST_F(HXAuthorizationPolkitTest, OnePasswordCoversEveryOperationOfARun)
{
    const PolkitNamespace::Result run = env.runAsUser({
        kClientInBundle,
        QStringLiteral("authorized"),
        QStringLiteral(","),
        QStringLiteral("remove"),
        kLocked + QStringLiteral("/remove.txt"),
        QStringLiteral(","),
        QStringLiteral("move"),
        kLocked + QStringLiteral("/move.txt"),
        QStringLiteral("/Users/anna/moved.txt"),
        QStringLiteral(","),
        QStringLiteral("trash"),
        kLocked + QStringLiteral("/trash.txt"),
        QStringLiteral(","),
        QStringLiteral("trash"),
        kLocked + QStringLiteral("/tree"),
        QStringLiteral(","),
        QStringLiteral("mkdir"),
        kLocked + QStringLiteral("/new/deeper"),
        QStringLiteral(","),
        QStringLiteral("copy"),
        kLocked + QStringLiteral("/new"),
        QStringLiteral("/Users/anna/copied"),
        QStringLiteral(","),
        QStringLiteral("remove"),
        QStringLiteral("/Users/anna/Library"),
        QStringLiteral(","),
        QStringLiteral("authorized"),
    });
    const std::string output = run.output.toStdString();
    EXPECT_EQ(run.exitCode, 0) << output;
    EXPECT_EQ(run.passwordPrompts, 1) << output;
    EXPECT_NE(output.find("AUTHENTICATING FOR com.lanternfish.mendwell.authtool"), std::string::npos)
        << output;
    EXPECT_NE(output.find("authorized 0"), std::string::npos) << output;

    EXPECT_NE(output.find("remove 1"), std::string::npos) << output;
    EXPECT_FALSE(env.exists(kLocked + QStringLiteral("/remove.txt")));
    EXPECT_NE(output.find("move 1"), std::string::npos) << output;
    EXPECT_FALSE(env.exists(kLocked + QStringLiteral("/move.txt")));
    EXPECT_TRUE(env.exists(QStringLiteral("/Users/anna/moved.txt")));

    // Trashed into anna's freedesktop trash, with the record the desktop restores from.
    const QString trash = QStringLiteral("/Users/anna/.local/share/Trash");
    EXPECT_FALSE(env.exists(kLocked + QStringLiteral("/trash.txt")));
    EXPECT_TRUE(env.exists(trash + QStringLiteral("/files/trash.txt")));
    EXPECT_TRUE(env.exists(trash + QStringLiteral("/files/tree/inner")));
    QFile record(env.hostPath(trash + QStringLiteral("/info/trash.txt.trashinfo")));
    ASSERT_TRUE(record.open(QIODevice::ReadOnly));
    EXPECT_TRUE(record.readAll().contains("Path=" + (kLocked + QStringLiteral("/trash.txt")).toUtf8()));

    EXPECT_TRUE(env.exists(kLocked + QStringLiteral("/new/deeper")));
    EXPECT_TRUE(env.exists(QStringLiteral("/Users/anna/copied/deeper")));
    // The protected folder is refused before anything is asked of the runner.
    EXPECT_NE(output.find("remove 0"), std::string::npos) << output;
    EXPECT_NE(output.find("Unable to delete path /Users/anna/Library because it is a system directory."),
              std::string::npos)
        << output;
    EXPECT_TRUE(env.exists(QStringLiteral("/Users/anna/Library")));
    EXPECT_NE(output.find("authorized 1"), std::string::npos) << output;
}

TEST_F(HXAuthorizationPolkitTest, NoOtherProcessRidesOnTheRight)
{
    const PolkitNamespace::Result run = env.runAsUser(
        {kClientInBundle, QStringLiteral("start"), QStringLiteral(","), QStringLiteral("fdprobe"),
         QStringLiteral(","), QStringLiteral("ride"), QStringLiteral(","), QStringLiteral("authorized")},
        1);
    const std::string output = run.output.toStdString();
    EXPECT_NE(output.find("start 1"), std::string::npos) << output;
    // Another process of anna cannot reach the pipes to the runner...
    EXPECT_EQ(output.find("fdprobe 0"), std::string::npos) << output;
    // ...and starting the runner again needs a password again (a wrong one here).
    EXPECT_EQ(run.passwordPrompts, 2) << output;
    EXPECT_EQ(output.find("ride 0"), std::string::npos) << output;
    EXPECT_NE(output.find("authorized 1"), std::string::npos) << output;
}

TEST_F(HXAuthorizationPolkitTest, RunnerNeverFollowsALinkOutOfTheGivenFolders)
{
    // A folder anna controls holds a link into a folder only root may change.
    ASSERT_TRUE(env.makeFolder(QStringLiteral("/Library/Guarded"), false));
    ASSERT_TRUE(env.writeFile(QStringLiteral("/Library/Guarded/victim"), "keep me", false));
    ASSERT_TRUE(
        QFile::link(QStringLiteral("/Library/Guarded"), env.hostPath(kAdobe + QStringLiteral("/escape"))));
    ASSERT_EQ(::lchown(QFile::encodeName(env.hostPath(kAdobe + QStringLiteral("/escape"))).constData(),
                       getpwnam("anna")->pw_uid, getpwnam("anna")->pw_gid),
              0);
    const PolkitNamespace::Result run = env.runAsUser({
        kClientInBundle,
        QStringLiteral("remove"),
        kAdobe + QStringLiteral("/escape/victim"),
        QStringLiteral(","),
        QStringLiteral("move"),
        kLocked + QStringLiteral("/move.txt"),
        kAdobe + QStringLiteral("/escape"),
        QStringLiteral(","),
        QStringLiteral("remove"),
        kAdobe + QStringLiteral("/escape"),
    });
    const std::string output = run.output.toStdString();
    EXPECT_EQ(run.passwordPrompts, 1) << output;
    EXPECT_NE(output.find("remove 0"), std::string::npos) << output;
    EXPECT_TRUE(env.exists(QStringLiteral("/Library/Guarded/victim")));
    // Moving onto the link replaces the link; nothing lands in the guarded folder.
    EXPECT_FALSE(env.exists(QStringLiteral("/Library/Guarded/move.txt")));
    // The link itself (the last component) is removed, not what it points to.
    EXPECT_NE(output.find("remove 1"), std::string::npos) << output;
    EXPECT_TRUE(env.exists(QStringLiteral("/Library/Guarded/victim")));
}
