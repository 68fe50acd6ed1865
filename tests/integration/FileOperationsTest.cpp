// HXFileManager's operations as a real process in the sandbox: as anna (the
// console user) and as root, with the desktop's trash client (trash-cli) reading
// what they trashed.

#include "tests/support/PolkitNamespace.h"
#include "tests/support/Sandbox.h"
#include "tests/support/TestFiles.h"

#include <QDir>
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
        ASSERT_EQ(box.installInBundle(QStringLiteral("mendwell-fileops")), kProgram);
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
        const struct stat info = disk::info(box.hostPath(sandboxPath));
        return info.st_mode != 0 ? info.st_uid : static_cast<uid_t>(-1);
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

    result = trashCli({QStringLiteral("sh"), QStringLiteral("-c"),
                       QStringLiteral("echo 0 | trash-restore ") + prefs + QStringLiteral("/Sub/Layouts")});
    ASSERT_EQ(result.exitCode, 0) << describe(result).toStdString();
    EXPECT_EQ(box.readFile(prefs + QStringLiteral("/Sub/Layouts/Workspace.plist")), QByteArray("w"));

    // A missing item counts as trashed; the whole-folder form keeps the folder.
    EXPECT_EQ(asUser({QStringLiteral("trash"), prefs + QStringLiteral("/gone")}).out, QByteArray("YES\n"));
    EXPECT_EQ(asUser({QStringLiteral("trashcontents"), prefs + QStringLiteral("/Sub")}).out,
              QByteArray("YES\n"));
    EXPECT_TRUE(box.exists(prefs + QStringLiteral("/Sub")));
    EXPECT_FALSE(box.exists(prefs + QStringLiteral("/Sub/Layouts")));
}

TEST_F(FileOperationsTest, AnExceptionWhileTrashingByTypeOrNameIsLoggedUnderThatOperation)
{
    const QString prefs = kHome + QStringLiteral("/Library/Preferences/Adobe");
    ASSERT_TRUE(box.writeFile(prefs + QStringLiteral("/a.xml"), "a", true));
    ASSERT_TRUE(box.writeFile(prefs + QStringLiteral("/Sub/Workspace.plist"), "w", true));
    for (const auto &[command, argument, text] : {
             std::tuple{
                 "trashtype", "xml",
                 "Exception in +[HXFileManager trashFilesOfType:inFolder:]. std::runtime_error - observer "
                 "failed."},
             std::tuple{
                 "trashnamed", "Workspace.plist",
                 "Exception in +[HXFileManager trashFilesNamed:inFolder:]. std::runtime_error - observer "
                 "failed."},
         }) {
        const ProcessResult result =
            asUser({QLatin1String(command), QLatin1String(argument), prefs, QStringLiteral("throwing")});
        EXPECT_EQ(result.out, QByteArray(text) + '\n');
        EXPECT_TRUE(log().contains(QStringLiteral(" - %1\n").arg(QLatin1String(text))))
            << log().toStdString();
    }
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
    const QString kept = QStringLiteral("/Library/Application Support/Adobe/kept.db");
    ASSERT_TRUE(box.writeFile(kept, "k"));
    // Locked items: each operation unlocks what it removes, trashes or moves onto.
    const auto attributes = [&](QStringList command, const QString &path) {
        return runProcess(command << box.hostPath(path)).out.left(5);
    };
    for (const QString &path :
         {folder + QStringLiteral("/remove.db"), folder + QStringLiteral("/trash.db"), kept})
        attributes({QStringLiteral("chattr"), QStringLiteral("+i")}, path);
    ASSERT_EQ(attributes({QStringLiteral("lsattr")}, kept), "----i");

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
    EXPECT_EQ(
        asRoot({QStringLiteral("move"), folder + QStringLiteral("/moved.db"), kept, QStringLiteral("noauth")})
            .out,
        QByteArray("NO\n"));
    EXPECT_EQ(attributes({QStringLiteral("lsattr")}, kept), "-----") << "unlocked, though not replaced";

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
    // Nothing left locked for the sandbox's removal, whatever failed above.
    attributes({QStringLiteral("chattr"), QStringLiteral("-R"), QStringLiteral("-i")},
               QStringLiteral("/Library"));

    // In anna's home, behind a folder closed to her: her rights cannot, so only
    // the administrator's fallback (root's own rights) trashes it.
    ASSERT_TRUE(box.writeFile(kHome + QStringLiteral("/Closed/root.db"), "c"));
    ASSERT_TRUE(disk::chmod(box.hostPath(kHome + QStringLiteral("/Closed")), 0700));
    EXPECT_EQ(
        asRoot({QStringLiteral("trash"), kHome + QStringLiteral("/Closed/root.db"), QStringLiteral("noauth")})
            .out,
        QByteArray("NO\n"));
    EXPECT_EQ(asRoot({QStringLiteral("trash"), kHome + QStringLiteral("/Closed/root.db")}).out,
              QByteArray("YES\n"));
    EXPECT_EQ(box.readFile(kTrash + QStringLiteral("/files/root.db")), QByteArray("c"));

    // Archives: an existing destination goes to the trash first.
    ASSERT_TRUE(box.writeFile(kHome + QStringLiteral("/Desktop/Logs.zip"), "old", true));
    EXPECT_EQ(asRoot({QStringLiteral("zip"), folder, kHome + QStringLiteral("/Desktop/Logs.zip")}).out,
              QByteArray("YES\n"));
    EXPECT_EQ(box.readFile(kTrash + QStringLiteral("/files/Logs.zip")), QByteArray("old"));
    const ProcessResult listing = box.runAsRoot(
        {QStringLiteral("unzip"), QStringLiteral("-Z1"), kHome + QStringLiteral("/Desktop/Logs.zip")});
    EXPECT_EQ(listing.out, QByteArray("Common/\nCommon/moved.db\n")) << describe(listing).toStdString();
}

// A user working on her own files follows links and ".." as the platform does:
// her own link in a group-writable folder, a link another account made for her,
// a path that climbs. Her log folder kept elsewhere through a link still rotates.
TEST_F(FileOperationsTest, AsTheUserLinksAndClimbingPathsWorkAsOnThePlatform)
{
    const QString work = kHome + QStringLiteral("/Work");
    ASSERT_TRUE(box.makeFolder(work + QStringLiteral("/sub"), true));
    ASSERT_TRUE(box.makeFolder(kHome + QStringLiteral("/Shared"), true, 0775));
    auto link = [&](const QString &target, const QString &path, uid_t owner) {
        ASSERT_TRUE(QFile::link(target, box.hostPath(path)));
        ASSERT_TRUE(disk::chown(box.hostPath(path), owner, owner));
    };
    link(work, kHome + QStringLiteral("/Shared/Projects"), Sandbox::userId());
    link(work, kHome + QStringLiteral("/Admins"), Sandbox::userId() + 1000);  // another account's
    for (const char *name : {"t1.txt", "r1.txt", "m1.txt", "c1.txt", "xml/a.xml"})
        ASSERT_TRUE(box.writeFile(work + QLatin1Char('/') + QLatin1String(name), name, true));

    const QList<QStringList> operations{
        {QStringLiteral("trash"), kHome + QStringLiteral("/Shared/Projects/t1.txt"),
         QStringLiteral("noauth")},
        {QStringLiteral("remove"), kHome + QStringLiteral("/Admins/r1.txt"), QStringLiteral("noauth")},
        {QStringLiteral("move"), work + QStringLiteral("/sub/../m1.txt"),
         kHome + QStringLiteral("/Shared/Projects/moved.txt"), QStringLiteral("noauth")},
        {QStringLiteral("copy"), kHome + QStringLiteral("/Admins/c1.txt"),
         work + QStringLiteral("/sub/../copied.txt"), QStringLiteral("noauth")},
        {QStringLiteral("mkdir"), kHome + QStringLiteral("/Shared/Projects/sub/../made"),
         QStringLiteral("noauth")},
    };
    for (const QStringList &operation : operations) {
        const ProcessResult result = asUser(operation);
        EXPECT_EQ(result.out, QByteArray("YES\n")) << operation.join(u' ').toStdString() << "\n"
                                                   << log().toStdString();
    }
    EXPECT_FALSE(box.exists(work + QStringLiteral("/t1.txt")));
    EXPECT_EQ(box.readFile(kTrash + QStringLiteral("/files/t1.txt")), QByteArray("t1.txt"));
    EXPECT_FALSE(box.exists(work + QStringLiteral("/r1.txt")));
    EXPECT_EQ(box.readFile(work + QStringLiteral("/moved.txt")), QByteArray("m1.txt"));
    EXPECT_EQ(box.readFile(work + QStringLiteral("/copied.txt")), QByteArray("c1.txt"));
    EXPECT_TRUE(box.exists(work + QStringLiteral("/made")));
    // The links themselves are where they were.
    EXPECT_TRUE(QFileInfo(box.hostPath(kHome + QStringLiteral("/Admins"))).isSymLink());

    // Trashing by type follows links to folders, and a link back into the search once.
    const QString prefs = kHome + QStringLiteral("/Prefs");
    ASSERT_TRUE(box.writeFile(prefs + QStringLiteral("/b.xml"), "b", true));
    link(work + QStringLiteral("/xml"), prefs + QStringLiteral("/linked"), Sandbox::userId());
    link(QStringLiteral("."), prefs + QStringLiteral("/loop"), Sandbox::userId());
    ProcessResult result = asUser({QStringLiteral("trashtype"), QStringLiteral("xml"), prefs});
    QStringList trashed = QString::fromUtf8(result.out).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    trashed.sort();
    EXPECT_EQ(trashed,
              (QStringList{prefs + QStringLiteral("/b.xml"), prefs + QStringLiteral("/linked/a.xml")}))
        << result.out.constData();
    EXPECT_FALSE(box.exists(work + QStringLiteral("/xml/a.xml")));

    // Her Logs folder lives elsewhere: each run turns the generations over there.
    ASSERT_TRUE(QDir(box.hostPath(kHome + QStringLiteral("/Library/Logs"))).removeRecursively());
    ASSERT_TRUE(box.makeFolder(kHome + QStringLiteral("/Elsewhere/Logs"), true));
    link(kHome + QStringLiteral("/Elsewhere/Logs"), kHome + QStringLiteral("/Library/Logs"),
         Sandbox::userId());
    for (int run = 0; run < 3; ++run)
        asUser({QStringLiteral("trash"), work + QStringLiteral("/gone")});
    for (const char *generation : {"1", "2", "3"})
        EXPECT_TRUE(box.exists(kHome + QStringLiteral("/Elsewhere/Logs/Lanternfish/mendwell-fileops.") +
                               QLatin1String(generation) + QStringLiteral(".log")))
            << generation;
}

// Root's walk refuses a link of the user's outside her home: a folder behind it
// was never looked at, so it is neither empty nor done.
TEST_F(FileOperationsTest, AsRootAFolderBehindARefusedLinkIsNeitherEmptyNorDone)
{
    const QString behind = QStringLiteral("/Library/Application Support/Adobe/Hers");
    ASSERT_TRUE(box.writeFile(kHome + QStringLiteral("/Target/item.txt"), "hers", true));
    ASSERT_TRUE(box.makeFolder(QStringLiteral("/Library/Application Support/Adobe")));
    ASSERT_TRUE(QFile::link(kHome + QStringLiteral("/Target"), box.hostPath(behind)));
    ASSERT_TRUE(disk::chown(box.hostPath(behind), Sandbox::userId(), Sandbox::userGroupId()));
    EXPECT_EQ(asRoot({QStringLiteral("isempty"), behind}).out, QByteArray("NO\n"));
    EXPECT_EQ(asRoot({QStringLiteral("trashcontents"), behind}).out, QByteArray("NO\n"));
    EXPECT_EQ(asRoot({QStringLiteral("copycontents"), behind, QStringLiteral("/Library")}).out,
              QByteArray("NO\n"));
    // A touch is a tool run as administrator: as root that is YES, whatever the
    // refused walk did (nothing).
    const QDateTime past = QDateTime::fromSecsSinceEpoch(1000000000);
    QFile item(box.hostPath(kHome + QStringLiteral("/Target/item.txt")));
    ASSERT_TRUE(item.open(QIODevice::ReadWrite) && item.setFileTime(past, QFileDevice::FileModificationTime));
    item.close();
    EXPECT_EQ(asRoot({QStringLiteral("touch"), behind + QStringLiteral("/item.txt")}).out,
              QByteArray("YES\n"));
    EXPECT_EQ(QFileInfo(item.fileName()).lastModified(), past);
    EXPECT_EQ(box.readFile(kHome + QStringLiteral("/Target/item.txt")), QByteArray("hers"));
    EXPECT_FALSE(box.exists(QStringLiteral("/Library/item.txt")));
    // What is missing is empty, as the platform answers.
    EXPECT_EQ(asRoot({QStringLiteral("isempty"), QStringLiteral("/Library/Missing")}).out,
              QByteArray("YES\n"));
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
    auto logText = [&] { return QString::fromUtf8(disk::read(polkit.hostPath(kLog))); };

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
    EXPECT_TRUE(disk::read(polkit.hostPath(kTrash + QStringLiteral("/info/trash.db.trashinfo")))
                    .contains("\nPath=/Library/Application%20Support/Adobe/Common/trash.db\n"));
}

}  // namespace
