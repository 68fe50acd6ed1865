// HXFileManager's operations as a real process in the sandbox: as anna (the
// console user) and as root, with the desktop's trash client (trash-cli) reading
// what they trashed.

#include "tests/support/PolkitNamespace.h"
#include "tests/support/Sandbox.h"

#include <QFile>
#include <QFileInfo>
#include <QStandardPaths>

#include <gtest/gtest.h>

#include <sys/stat.h>

namespace {

const QString kHome = QStringLiteral("/Users/anna");
const QString kTrash = QStringLiteral("/Users/anna/.local/share/Trash");
const QString kLog = QStringLiteral("/Users/anna/Library/Logs/Lanternfish/mendwell-fileops.1.log");
const QString kProgram = QStringLiteral("/Applications/Mendwell.app/Contents/MacOS/mendwell-fileops");

class FileOperationsTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        SKIP_WITHOUT_SANDBOX();
        // Inside the bundle, beside the privileged runner, as the program's own parts are.
        ASSERT_TRUE(QFile::copy(QStringLiteral(MENDWELL_TEST_PROGRAMS_DIR "/mendwell-fileops"),
                                box.hostPath(kProgram)));
        ASSERT_TRUE(box.makeFolder(kHome + QStringLiteral("/Library/Logs"), true));
        ASSERT_TRUE(box.makeFolder(QStringLiteral("/Library/Logs/Lanternfish")));
    }

    ProcessResult asUser(const QStringList &arguments) const
    {
        return box.runAsUser(QStringList{kProgram} + arguments);
    }
    ProcessResult asRoot(const QStringList &arguments) const
    {
        return box.runAsRoot(QStringList{kProgram} + arguments);
    }

    static QString describe(const ProcessResult &result)
    {
        return QString::fromUtf8(result.out + "\n" + result.err);
    }

    QString log() const { return QString::fromUtf8(box.readFile(kLog)); }

    uid_t ownerOf(const QString &sandboxPath) const
    {
        struct stat info {};
        return ::lstat(QFile::encodeName(box.hostPath(sandboxPath)).constData(), &info) == 0
                   ? info.st_uid
                   : static_cast<uid_t>(-1);
    }

    // trash-cli as anna, on anna's home trash.
    ProcessResult trashCli(const QStringList &arguments) const
    {
        return box.runAsUser(arguments, {QStringLiteral("XDG_DATA_HOME=/Users/anna/.local/share")});
    }

    Sandbox box;
};

TEST_F(FileOperationsTest, TrashedByTypeAndNameTheDesktopListsAndRestoresThem)
{
    if (QStandardPaths::findExecutable(QStringLiteral("trash-list")).isEmpty())
        GTEST_SKIP() << "trash-cli is not installed";
    const QString prefs = kHome + QStringLiteral("/Library/Preferences/Adobe");
    ASSERT_TRUE(box.writeFile(prefs + QStringLiteral("/a.xml"), "a", true));
    ASSERT_TRUE(box.writeFile(prefs + QStringLiteral("/Sub/b.Xml"), "b", true));
    ASSERT_TRUE(box.writeFile(prefs + QStringLiteral("/c.xml/inside.txt"), "c", true));
    ASSERT_TRUE(box.writeFile(prefs + QStringLiteral("/Sub/Layouts/Workspace.plist"), "w", true));
    ASSERT_TRUE(box.writeFile(prefs + QStringLiteral("/keep.txt"), "k", true));

    ProcessResult result = asUser({QStringLiteral("trashtype"), QStringLiteral("XML"), prefs});
    ASSERT_EQ(result.exitCode, 0) << describe(result).toStdString();
    QStringList trashed = QString::fromUtf8(result.out).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    trashed.sort();
    EXPECT_EQ(trashed, (QStringList{prefs + QStringLiteral("/Sub/b.Xml"), prefs + QStringLiteral("/a.xml")}));
    EXPECT_TRUE(box.exists(prefs + QStringLiteral("/c.xml/inside.txt")));
    EXPECT_TRUE(box.exists(prefs + QStringLiteral("/keep.txt")));

    result = asUser({QStringLiteral("trashnamed"), QStringLiteral("Workspace.plist"), prefs});
    EXPECT_EQ(result.out, (prefs + QStringLiteral("/Sub/Layouts/Workspace.plist\n")).toUtf8());
    EXPECT_EQ(box.readFile(kTrash + QStringLiteral("/files/Workspace.plist")), QByteArray("w"));
    EXPECT_EQ(ownerOf(kTrash + QStringLiteral("/info/a.xml.trashinfo")), ownerOf(kHome));

    result = trashCli({QStringLiteral("trash-list")});
    ASSERT_EQ(result.exitCode, 0) << describe(result).toStdString();
    for (const char *item : {"/a.xml", "/Sub/b.Xml", "/Sub/Layouts/Workspace.plist"})
        EXPECT_TRUE(QString::fromUtf8(result.out).contains(QLatin1Char(' ') + prefs + QLatin1String(item)))
            << describe(result).toStdString();

    result =
        box.runAsUser({QStringLiteral("sh"), QStringLiteral("-c"),
                       QStringLiteral("echo 0 | trash-restore ") + prefs + QStringLiteral("/Sub/Layouts")},
                      {QStringLiteral("XDG_DATA_HOME=/Users/anna/.local/share")});
    ASSERT_EQ(result.exitCode, 0) << describe(result).toStdString();
    EXPECT_EQ(box.readFile(prefs + QStringLiteral("/Sub/Layouts/Workspace.plist")), QByteArray("w"));

    // A missing item counts as trashed; the whole-folder form keeps the folder.
    EXPECT_EQ(asUser({QStringLiteral("trash"), prefs + QStringLiteral("/gone")}).out, QByteArray("YES\n"));
    EXPECT_EQ(asUser({QStringLiteral("trashcontents"), prefs + QStringLiteral("/Sub")}).out,
              QByteArray("YES\n"));
    EXPECT_TRUE(box.exists(prefs + QStringLiteral("/Sub")));
    EXPECT_FALSE(box.exists(prefs + QStringLiteral("/Sub/Layouts")));
}

TEST_F(FileOperationsTest, AsUserFailuresAreLoggedAndOnlyAuthorizedWhenAllowed)
{
    const QString locked = QStringLiteral("/Library/Application Support/Adobe/Common/cache.db");
    ASSERT_TRUE(box.writeFile(locked, "root's"));
    ASSERT_TRUE(box.writeFile(kHome + QStringLiteral("/copy.db"), "mine", true));

    ProcessResult result = asUser({QStringLiteral("remove"), locked, QStringLiteral("noauth")});
    EXPECT_EQ(result.out, QByteArray("NO\n")) << describe(result).toStdString();
    EXPECT_TRUE(log().contains(QStringLiteral("Error removing file: ") + locked +
                               QStringLiteral(": Permission denied. Authorizing...")))
        << log().toStdString();

    result = asUser(
        {QStringLiteral("move"), locked, kHome + QStringLiteral("/moved.db"), QStringLiteral("noauth")});
    EXPECT_EQ(result.out, QByteArray("NO\n"));
    EXPECT_TRUE(log().contains(QStringLiteral("Error moving file: ") + locked +
                               QStringLiteral(": Permission denied.\n")))
        << log().toStdString();
    EXPECT_FALSE(log().contains(QStringLiteral("Authorizing...")));

    // Each run starts a fresh log: a failed trash writes nothing.
    result = asUser({QStringLiteral("trash"), locked, QStringLiteral("noauth")});
    EXPECT_EQ(result.out, QByteArray("NO\n"));
    EXPECT_FALSE(log().contains(QStringLiteral("Error"))) << log().toStdString();
    EXPECT_TRUE(box.exists(locked));

    result = asUser(
        {QStringLiteral("copy"), locked, kHome + QStringLiteral("/copy.db"), QStringLiteral("noauth")});
    EXPECT_EQ(result.out, QByteArray("NO\n"));
    EXPECT_EQ(box.readFile(kHome + QStringLiteral("/copy.db")), QByteArray("mine"));
    EXPECT_TRUE(log().contains(QStringLiteral("Error copying file: ") + kHome +
                               QStringLiteral("/copy.db: File exists. Authorizing...")))
        << log().toStdString();
    EXPECT_EQ(box.readFile(locked), QByteArray("root's"));
}

TEST_F(FileOperationsTest, AsRootTheSameOperationsRunDirectlyAndTrashGoesToTheConsoleUser)
{
    const QString folder = QStringLiteral("/Library/Application Support/Adobe/Common");
    ASSERT_TRUE(box.writeFile(folder + QStringLiteral("/remove.db"), "r"));
    ASSERT_TRUE(box.writeFile(folder + QStringLiteral("/move.db"), "m"));
    ASSERT_TRUE(box.writeFile(folder + QStringLiteral("/trash.db"), "t"));

    EXPECT_EQ(
        asRoot({QStringLiteral("remove"), folder + QStringLiteral("/remove.db"), QStringLiteral("noauth")})
            .out,
        QByteArray("YES\n"));
    EXPECT_FALSE(box.exists(folder + QStringLiteral("/remove.db")));
    EXPECT_EQ(asRoot({QStringLiteral("move"), folder + QStringLiteral("/move.db"),
                      folder + QStringLiteral("/moved.db"), QStringLiteral("noauth")})
                  .out,
              QByteArray("YES\n"));
    EXPECT_EQ(box.readFile(folder + QStringLiteral("/moved.db")), QByteArray("m"));

    const ProcessResult trashed =
        asRoot({QStringLiteral("trash"), folder + QStringLiteral("/trash.db"), QStringLiteral("noauth")});
    EXPECT_EQ(trashed.out, QByteArray("YES\n"))
        << describe(trashed).toStdString() << describe(asRoot({QStringLiteral("trashfolder")})).toStdString();
    EXPECT_EQ(box.readFile(kTrash + QStringLiteral("/files/trash.db")), QByteArray("t"));
    EXPECT_EQ(ownerOf(kTrash + QStringLiteral("/info/trash.db.trashinfo")), ownerOf(kHome));
    EXPECT_EQ(ownerOf(kTrash + QStringLiteral("/files")), ownerOf(kHome));
    EXPECT_EQ(ownerOf(kTrash + QStringLiteral("/files/trash.db")), 0u);
    if (!QStandardPaths::findExecutable(QStringLiteral("trash-list")).isEmpty()) {
        const ProcessResult listed = trashCli({QStringLiteral("trash-list")});
        EXPECT_TRUE(listed.out.contains(" " + (folder + QStringLiteral("/trash.db")).toUtf8()))
            << describe(listed).toStdString();
    }

    // Archives: an existing destination goes to the trash first.
    ASSERT_TRUE(box.writeFile(kHome + QStringLiteral("/Desktop/Logs.zip"), "old", true));
    EXPECT_EQ(asRoot({QStringLiteral("zip"), folder, kHome + QStringLiteral("/Desktop/Logs.zip")}).out,
              QByteArray("YES\n"));
    EXPECT_EQ(box.readFile(kTrash + QStringLiteral("/files/Logs.zip")), QByteArray("old"));
    const ProcessResult listing = box.runAsRoot(
        {QStringLiteral("unzip"), QStringLiteral("-Z1"), kHome + QStringLiteral("/Desktop/Logs.zip")});
    EXPECT_EQ(listing.out, QByteArray("Common/\nCommon/moved.db\n")) << describe(listing).toStdString();
}

// As anna, on items only root may change: the user's attempt fails and is logged,
// then polkit asks for the administrator's password once per run.
TEST(FileOperationsWithPolkitTest, RootOwnedItemsFallBackToAdministratorRights)
{
    SKIP_WITHOUT_POLKIT();
    PolkitNamespace polkit;
    ASSERT_TRUE(polkit.installInBundle(QStringLiteral(MENDWELL_TEST_PROGRAMS_DIR "/mendwell-fileops")));
    const QString folder = QStringLiteral("/Library/Application Support/Adobe/Common");
    ASSERT_TRUE(polkit.makeFolder(folder, false));
    for (const char *name : {"/remove.db", "/move.db", "/trash.db"})
        ASSERT_TRUE(polkit.writeFile(folder + QLatin1String(name), "root's", false));
    ASSERT_TRUE(polkit.makeFolder(kHome + QStringLiteral("/Library/Logs"), true));
    auto logText = [&] {
        QFile file(polkit.hostPath(kLog));
        return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
    };

    PolkitNamespace::Result result =
        polkit.runAsUser({kProgram, QStringLiteral("remove"), folder + "/remove.db"});
    EXPECT_TRUE(result.output.contains("YES")) << result.output.constData() << result.polkitLog.constData();
    EXPECT_EQ(result.passwordPrompts, 1);
    EXPECT_FALSE(polkit.exists(folder + QStringLiteral("/remove.db")));
    EXPECT_TRUE(logText().contains(QStringLiteral("Error removing file: ") + folder +
                                   QStringLiteral("/remove.db: Permission denied. Authorizing...")))
        << logText().toStdString();

    result = polkit.runAsUser({kProgram, QStringLiteral("move"), folder + "/move.db", folder + "/moved.db"});
    EXPECT_TRUE(result.output.contains("YES")) << result.output.constData();
    EXPECT_EQ(result.passwordPrompts, 1);
    EXPECT_TRUE(polkit.exists(folder + QStringLiteral("/moved.db")));
    EXPECT_FALSE(polkit.exists(folder + QStringLiteral("/move.db")));
    EXPECT_TRUE(logText().contains(QStringLiteral(" - Authorizing...\n"))) << logText().toStdString();

    result = polkit.runAsUser({kProgram, QStringLiteral("trash"), folder + "/trash.db"});
    EXPECT_TRUE(result.output.contains("YES")) << result.output.constData();
    EXPECT_EQ(result.passwordPrompts, 1);
    EXPECT_FALSE(polkit.exists(folder + QStringLiteral("/trash.db")));
    EXPECT_TRUE(polkit.exists(kTrash + QStringLiteral("/files/trash.db")));
    QFile record(polkit.hostPath(kTrash + QStringLiteral("/info/trash.db.trashinfo")));
    ASSERT_TRUE(record.open(QIODevice::ReadOnly));
    EXPECT_TRUE(record.readAll().contains("\nPath=/Library/Application%20Support/Adobe/Common/trash.db\n"));
}

}  // namespace
