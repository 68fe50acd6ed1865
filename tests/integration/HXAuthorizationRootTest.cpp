// Privileged operations as root (the command-line repair) and without any way to
// authorize, in a sandbox whose console user is anna.

#include "tests/support/Sandbox.h"

#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>

namespace {

const QString kClient = QStringLiteral(MENDWELL_TEST_PROGRAMS_DIR "/authclient");
const QString kCaches = QStringLiteral("/Users/anna/Library/Caches/Adobe");
const QString kTrash = QStringLiteral("/Users/anna/.local/share/Trash/files");

QStringList operations(std::initializer_list<QStringList> list)
{
    QStringList arguments{kClient};
    for (const QStringList &operation : list) {
        if (arguments.size() > 1)
            arguments << QStringLiteral(",");
        arguments << operation;
    }
    return arguments;
}

class HXAuthorizationRootTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        SKIP_WITHOUT_SANDBOX();
        ASSERT_TRUE(sandbox.makeFolder(QStringLiteral("/Users/anna/Library/Preferences"), true));
        ASSERT_TRUE(sandbox.makeFolder(QStringLiteral("/Users/anna/Documents"), true));
        ASSERT_TRUE(sandbox.makeFolder(kTrash, true));
        ASSERT_TRUE(sandbox.makeFolder(kCaches + QStringLiteral("/Layouts"), false));
        for (const char *name : {"remove.txt", "move.txt", "trash.txt", "keep.txt"})
            ASSERT_TRUE(sandbox.writeFile(kCaches + QLatin1Char('/') + QLatin1String(name), "data"));
    }

    Sandbox sandbox;
};

}  // namespace

TEST_F(HXAuthorizationRootTest, AsRootEveryOperationRunsItsToolDirectly)
{
    ASSERT_TRUE(sandbox.makeFolder(kTrash + QStringLiteral("/Layouts")));  // the name is taken
    const ProcessResult run = sandbox.runAsRoot(operations({
        {"authorized"},
        {"remove", kCaches + "/remove.txt"},
        {"move", kCaches + "/move.txt", "/Users/anna/moved.txt"},
        {"trash", kCaches + "/trash.txt"},
        {"trash", kCaches + "/Layouts"},
        {"trashdelete", kCaches + "/keep.txt"},
        {"mkdir", "/Library/Made/Deeper"},
        {"copy", "/Library/Made", "/Users/anna/Made copy"},
        {"exec", "/bin/touch", "/Library/touched"},
    }));
    const std::string output = run.out.toStdString() + run.err.toStdString();
    EXPECT_EQ(run.out,
              "authorized 1\nremove 1\nmove 1\ntrash 1\ntrash 1\ntrashdelete 1\nmkdir 1\ncopy 1\nexec 0\n")
        << output;
    EXPECT_FALSE(sandbox.exists(kCaches + QStringLiteral("/remove.txt")));
    EXPECT_TRUE(sandbox.exists(QStringLiteral("/Users/anna/moved.txt")));
    EXPECT_TRUE(sandbox.exists(kTrash + QStringLiteral("/trash.txt")));
    // A taken name gets "_" and a 14-digit time stamp, and a bare "." without extension.
    const QStringList trashed = QDir(sandbox.hostPath(kTrash)).entryList(QDir::Dirs | QDir::NoDotAndDotDot);
    EXPECT_EQ(trashed.filter(QRegularExpression(QStringLiteral("^Layouts_\\d{14}\\.$"))).size(), 1)
        << trashed.join(QLatin1Char(' ')).toStdString();
    EXPECT_FALSE(sandbox.exists(kCaches + QStringLiteral("/Layouts")));
    // Deleting on the root account removes in the trash, not the source.
    EXPECT_TRUE(sandbox.exists(kCaches + QStringLiteral("/keep.txt")));
    EXPECT_TRUE(sandbox.exists(QStringLiteral("/Library/Made/Deeper")));
    EXPECT_TRUE(sandbox.exists(QStringLiteral("/Users/anna/Made copy/Deeper")));
    EXPECT_TRUE(sandbox.exists(QStringLiteral("/Library/touched")));
}

TEST_F(HXAuthorizationRootTest, ProtectedFoldersAndMissingArgumentsAreRefusedWithTheirTexts)
{
    const ProcessResult run = sandbox.runAsRoot(operations({
        {"remove", "/Users/anna/Library"},
        {"trash", "/Users/anna/Documents"},
        {"trashcontents", "/Library"},
        {"movecontents", "/Applications", "/Users/anna"},
        {"move", "/Users/anna/Library/Preferences", "/Users/anna/Prefs"},
        {"move", "", "/Users/anna/x"},
        {"move", "/Users/anna/x", ""},
        {"copy", "", "/Users/anna/x"},
        {"copy", "/Users/anna/x", ""},
        {"move", "/Users/anna/does-not-exist", "/Users/anna/x"},
        {"exec", "/nonexistent/tool"},
        {"copy", "/Users/anna/Library/Preferences", "/Users/anna/Prefs copy"},
        {"remove", kCaches + "/remove.txt"},
    }));
    const QByteArray err = run.err;
    EXPECT_EQ(run.out, "remove 0\ntrash 0\ntrashcontents 0\nmovecontents 0\nmove 0\nmove 0\nmove 0\ncopy 0\n"
                       "copy 0\nmove 0\nexec -2\ncopy 1\nremove 1\n")
        << err.toStdString();
    for (const char *text : {
             "Unable to delete path /Users/anna/Library because it is a system directory.\n",
             "Unable to trash path /Users/anna/Documents because it is a system directory.\n",
             "Unable to trash folder contents of path /Library because it is a system directory.\n",
             "Unable to move contents of path /Applications because it is a system directory.\n",
             "Unable to move path /Users/anna/Library/Preferences because it is a system directory.\n",
             "Error in authMoveFile: old path is null\n",
             "Error in authMoveFile: new path is null\n",
             "Error in authCopyFile: old path is null\n",
             "Error in authCopyFile: new path is null\n",
             "Unable to execute task: path /nonexistent/tool doesn't exist\n",
         })
        EXPECT_TRUE(err.contains(text)) << text << "\n" << err.toStdString();
    EXPECT_TRUE(sandbox.exists(QStringLiteral("/Users/anna/Library/Preferences")));
    EXPECT_TRUE(sandbox.exists(QStringLiteral("/Users/anna/Prefs copy")));
    EXPECT_FALSE(sandbox.exists(kCaches + QStringLiteral("/remove.txt")));
}

TEST_F(HXAuthorizationRootTest, RootNeverFollowsAUserLinkOutOfTheGivenFolders)
{
    ASSERT_TRUE(sandbox.writeFile(QStringLiteral("/Library/Guarded/victim"), "keep me"));
    ASSERT_TRUE(sandbox.makeFolder(QStringLiteral("/Users/anna/Links"), true));
    const ProcessResult link =
        sandbox.runAsUser({QStringLiteral("ln"), QStringLiteral("-s"), QStringLiteral("/Library/Guarded"),
                           QStringLiteral("/Users/anna/Links/escape")});
    ASSERT_EQ(link.exitCode, 0) << link.err.toStdString();
    const QDateTime past = QDateTime::fromSecsSinceEpoch(1000000000);
    QFile victim(sandbox.hostPath(QStringLiteral("/Library/Guarded/victim")));
    ASSERT_TRUE(victim.open(QIODevice::ReadWrite) &&
                victim.setFileTime(past, QFileDevice::FileModificationTime));
    victim.close();
    const ProcessResult run = sandbox.runAsRoot(operations({
        {"remove", "/Users/anna/Links/escape/victim"},
        {"exec", "/usr/bin/touch", "-c", "-h", "/Users/anna/Links/escape/victim"},
        {"trashcontents", "/Users/anna/Links/escape"},
        {"mkdir", "/Users/anna/Links/escape/planted"},
        {"copy", kCaches + "/keep.txt", "/Users/anna/Links/escape/copied"},
    }));
    // As root a tool run answers "done" (remove YES, exec 0), whatever the refused walk left undone.
    EXPECT_EQ(run.out.left(16), "remove 1\nexec 0\n") << run.err.toStdString();
    EXPECT_TRUE(run.err.contains("Refusing to touch /Users/anna/Links/escape/victim: "))
        << run.err.toStdString();
    EXPECT_EQ(QFileInfo(victim.fileName()).lastModified(), past);
    EXPECT_TRUE(sandbox.exists(QStringLiteral("/Library/Guarded/victim")));
    EXPECT_FALSE(sandbox.exists(QStringLiteral("/Library/Guarded/planted")));
    EXPECT_FALSE(sandbox.exists(QStringLiteral("/Library/Guarded/copied")));
}

TEST_F(HXAuthorizationRootTest, WithoutGuiAUserIsNeverAuthorized)
{
    const ProcessResult run = sandbox.runAsUser(
        {kClient, QStringLiteral("--nogui"), QStringLiteral("exec"), QStringLiteral("/bin/true"),
         QStringLiteral(","), QStringLiteral("remove"), kCaches + QStringLiteral("/remove.txt"),
         QStringLiteral(","), QStringLiteral("exec"), QStringLiteral("/nonexistent/tool"),
         QStringLiteral(","), QStringLiteral("authorized")});
    EXPECT_EQ(run.out, "exec -1\nremove 0\nexec -2\nauthorized 0\n") << run.err.toStdString();
    EXPECT_EQ(run.err.count("Unable to authorize\n"), 2) << run.err.toStdString();
    EXPECT_TRUE(sandbox.exists(kCaches + QStringLiteral("/remove.txt")));
}
