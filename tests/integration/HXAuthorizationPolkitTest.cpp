// Privileged operations as a user, with polkit running for real: the password is
// asked once, every operation then runs through the privileged runner, and the
// right cannot be used by anyone else.

#include "tests/support/PolkitNamespace.h"
#include "tests/support/TestFiles.h"

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
    EXPECT_TRUE(disk::read(env.hostPath(trash + QStringLiteral("/info/trash.txt.trashinfo")))
                    .contains("Path=" + (kLocked + QStringLiteral("/trash.txt")).toUtf8()));

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
    ASSERT_TRUE(disk::chown(env.hostPath(kAdobe + QStringLiteral("/escape")), getpwnam("anna")->pw_uid,
                            getpwnam("anna")->pw_gid));
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

TEST_F(HXAuthorizationPolkitTest, GivenCredentialsAreCheckedByPolkitWithoutAskingAnyone)
{
    const QString admin = QString::fromLatin1(PolkitNamespace::kAdmin);
    const QString password = QString::fromLatin1(PolkitNamespace::kAdminPassword);
    const QString removed = kLocked + QStringLiteral("/remove.txt");
    ASSERT_TRUE(env.makeFolder(QStringLiteral("/Users/anna/Library/Logs"), true));
    auto startWith = [](const QString &user, const QString &secret) {
        return QStringList{QStringLiteral("startwith"), user, secret, QStringLiteral(",")};
    };
    const QStringList command =
        QStringList{kClientInBundle} + startWith(admin, QStringLiteral("not the password")) +
        startWith(QStringLiteral("anna"), password) +  // an account, but no administrator
        startWith(QStringLiteral("nobody-of-that-name"), password) + startWith(admin, password) +
        QStringList{QStringLiteral("remove"), removed, QStringLiteral(","), QStringLiteral("ride")};
    // No agent of anna's: whatever polkit asks must be answered by authclient
    // itself, and any prompt pkexec shows on the terminal is counted.
    const PolkitNamespace::Result run = env.runAsUser(command, 0, PolkitNamespace::Agent::None);
    const std::string output = run.output.toStdString();
    const std::string errors = run.errors.toStdString();
    const QByteArray shown = QByteArray(run.output).replace("\r\n", "\n");
    EXPECT_EQ(run.exitCode, 0) << output << errors;
    EXPECT_TRUE(shown.startsWith("startwith 0\nstartwith 0\nstartwith 0\nstartwith 1\nremove 1\n"))
        << output << errors;
    EXPECT_FALSE(env.exists(removed));

    // Each refusal is reported on standard error and in the program log, as a
    // refusal and not as a failure to check.
    const QByteArray refused = "Authorization failed. Invalid username or password";
    EXPECT_EQ(run.errors.count(refused), 3) << errors;
    EXPECT_EQ(errors.find("Unable to create authRef"), std::string::npos) << errors;
    const QString log = QStringLiteral("/Users/anna/Library/Logs/Lanternfish/authclient.1.log");
    EXPECT_EQ(disk::read(env.hostPath(log)).count(refused), 3);
    EXPECT_TRUE(run.polkitLog.contains("mendwell-test: action com.lanternfish.mendwell.authtool for anna"))
        << run.polkitLog.toStdString();

    // Nothing was asked of anyone while the credentials were used...
    const qsizetype ridden = shown.indexOf("remove 1\n");
    EXPECT_GT(ridden, 0) << output;
    EXPECT_EQ(shown.left(ridden).count("Password:"), 0) << output;
    EXPECT_FALSE(shown.left(ridden).contains("AUTHENTICATING FOR")) << output;
    // ...and the agent that answered with them is gone when the right is held:
    // another start of the runner from the same process falls to pkexec's own
    // prompt (a wrong password here) instead of being let through on them.
    EXPECT_EQ(run.passwordPrompts, 1) << output;
    EXPECT_TRUE(shown.contains("ride ")) << output;
    EXPECT_FALSE(shown.contains("ride 0")) << output;

    // Without a system bus the credentials cannot be checked at all: a failure
    // of its own, not a refusal.
    const PolkitNamespace::Result unchecked = env.runAsUser(
        {QStringLiteral("env"), QStringLiteral("DBUS_SYSTEM_BUS_ADDRESS=unix:path=/nonexistent/bus"),
         kClientInBundle, QStringLiteral("startwith"), admin, password},
        0, PolkitNamespace::Agent::None);
    EXPECT_TRUE(unchecked.output.startsWith("startwith 0")) << unchecked.output.toStdString();
    EXPECT_TRUE(unchecked.errors.contains("Unable to create authRef - error -60008"))
        << unchecked.errors.toStdString();
    EXPECT_FALSE(unchecked.errors.contains(refused)) << unchecked.errors.toStdString();
    EXPECT_EQ(unchecked.passwordPrompts, 0) << unchecked.output.toStdString();
}
