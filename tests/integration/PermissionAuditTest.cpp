// The permission audit and permissiontool in the sandbox, on one tree that holds
// what the rules turn on: the folder classes, the left-out folders, skipped
// entries, links, packages, /SLStore, locked items and a wrong folder. The audit
// runs as root for anna and as anna herself; permissiontool then corrects
// everything but a file with a second hard link outside the Adobe folders.

#include "tests/support/Sandbox.h"
#include "tests/support/TestFiles.h"

#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QSet>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

const QString kUser = QStringLiteral("/Users/anna/Library/Application Support/Adobe");
const QString kLocal = QStringLiteral("/Library/Application Support/Adobe");
const QString kDocuments = QStringLiteral("/Users/anna/Documents/Adobe");
const QString kAudit = QStringLiteral("/Applications/Mendwell.app/Contents/MacOS/app-audit");
const QString kTool = QStringLiteral("/Applications/Mendwell.app/Contents/MacOS/permissiontool");

enum Owner { Root, Anna };

class PermissionAuditTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        SKIP_WITHOUT_SANDBOX();
        ASSERT_EQ(box.installInBundle(QStringLiteral("app-audit")), kAudit);
        buildTree();
    }

    void TearDown() override
    {
        for (const QString &locked : lockedItems)
            disk::setLocked(box.hostPath(locked), false);
        // The deep tree outgrows the paths the sandbox's removal takes; rm walks by
        // descriptors.
        runProcess({QStringLiteral("rm"), QStringLiteral("-rf"), box.hostPath(kUser + "/d")});
    }

    void folder(const QString &path, Owner owner, mode_t mode = 0755)
    {
        ASSERT_TRUE(box.makeFolder(path, owner == Anna));
        set(path, owner, mode);
    }

    void file(const QString &path, Owner owner, mode_t mode, bool locked = false)
    {
        ASSERT_TRUE(box.writeFile(path, "contents of " + path.toUtf8(), false));
        set(path, owner, mode);
        if (locked) {
            ASSERT_TRUE(disk::setLocked(box.hostPath(path), true));
            lockedItems.append(path);
        }
    }

    void set(const QString &path, Owner owner, mode_t mode)
    {
        ASSERT_TRUE(
            disk::chown(box.hostPath(path), owner == Anna ? annaUid : 0, owner == Anna ? annaGid : 0));
        ASSERT_TRUE(disk::chmod(box.hostPath(path), mode));
    }

    void buildTree()
    {
        folder(QStringLiteral("/Users/anna/Library/Application Support"), Anna);
        folder(QStringLiteral("/Users/anna/Documents"), Anna);
        folder(QStringLiteral("/Library/Application Support"), Root);

        folder(kUser, Anna);
        file(kUser + "/ok.prefs", Anna, 0644);
        file(kUser + "/root.prefs", Root, 0644);
        file(kUser + "/locked.prefs", Anna, 0644, true);
        file(kUser + "/readonly.prefs", Anna, 0444);
        file(kUser + "/.DS_Store", Root, 0600);
        file(kUser + "/Edit~recover.prproj", Root, 0600);
        ASSERT_TRUE(QFile::link(kLocal + "/private640", box.hostPath(kUser + "/link-to-wrong")));
        folder(kUser + "/Updater6", Anna);
        file(kUser + "/Updater6/root.prefs", Root, 0644);
        folder(kUser + "/LEGAL", Anna);
        file(kUser + "/LEGAL/root.prefs", Root, 0600);
        folder(kUser + "/linguistics", Anna);
        file(kUser + "/linguistics/root.prefs", Root, 0644);
        folder(kUser + "/Common/MediaCore", Anna);
        file(kUser + "/Common/MediaCore/shared.bin", Root, 0644);
        file(kUser + "/Common/MediaCore/private.bin", Root, 0600);
        file(kUser + "/Common/MediaCore/locked", Anna, 0644, true);
        folder(kUser + "/WrongFolder", Root);
        file(kUser + "/WrongFolder/root.prefs", Root, 0600);
        folder(kUser + "/Plugin.bundle", Anna);
        file(kUser + "/Plugin.bundle/root.prefs", Root, 0600);
        folder(kUser + "/Root.app", Root);

        folder(kLocal, Root);
        file(kLocal + "/private640", Root, 0640);
        file(kLocal + "/plain644", Root, 0644);
        file(kLocal + "/private700", Root, 0700);
        file(kLocal + "/locked644", Root, 0644, true);
        folder(kLocal + "/Updater6", Root);
        file(kLocal + "/Updater6/private600", Root, 0600);
        folder(kLocal + "/Linguistics", Root);
        file(kLocal + "/Linguistics/private600", Root, 0600);
        folder(kLocal + "/SLStore", Root, 0777);
        file(kLocal + "/SLStore/group775", Root, 0775);
        file(kLocal + "/SLStore/open777", Root, 0777);

        folder(kDocuments, Anna);
        file(kDocuments + "/root.prproj", Root, 0644);
        folder(kDocuments + "/Sub", Anna);
        file(kDocuments + "/Sub/locked.prproj", Anna, 0644, true);
    }

    // The lines of the audit of the three folders, as root for anna or as anna.
    QStringList audit(bool asRoot)
    {
        const ProcessResult result = asRoot ? box.runAsRoot({kAudit}) : box.runAsUser({kAudit});
        EXPECT_EQ(result.exitCode, 0) << result.err.constData();
        return QString::fromUtf8(result.out).split(u'\n', Qt::SkipEmptyParts);
    }

    // WRONG in the order of a depth-first walk of the three folders in the order
    // the file system lists them.
    QStringList inWalkOrder(const QSet<QString> &wrong) const
    {
        QStringList ordered;
        std::function<void(const QString &)> walk = [&](const QString &path) {
            if (wrong.contains(path))
                ordered.append(path);
            const QFileInfo info(box.hostPath(path));
            if (info.isSymLink() || !info.isDir())
                return;
            for (const QString &name :
                 QDir(box.hostPath(path))
                     .entryList(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
                                QDir::Unsorted))
                walk(path + u'/' + name);
        };
        for (const QString &root : {kUser, kLocal, kDocuments})
            walk(root);
        return ordered;
    }

    struct stat hostInfo(const QString &path) const { return disk::info(box.hostPath(path)); }

    Sandbox box;
    const uid_t annaUid = Sandbox::userId();
    const gid_t annaGid = Sandbox::userGroupId();
    QStringList lockedItems;
};

const QSet<QString> kWrongForBoth{kUser + "/root.prefs",          kUser + "/locked.prefs",
                                  kUser + "/Updater6/root.prefs", kUser + "/linguistics/root.prefs",
                                  kUser + "/WrongFolder",         kUser + "/Root.app",
                                  kLocal + "/private640",         kLocal + "/SLStore/group775",
                                  kDocuments + "/root.prproj",    kDocuments + "/Sub/locked.prproj",
                                  kLocal + "/locked644",          kUser + "/Common/MediaCore/locked"};

TEST_F(PermissionAuditTest, ReportsWhatTheRulesCallWrongDepthFirstInListingOrder)
{
    EXPECT_EQ(audit(true), inWalkOrder(kWrongForBoth));

    // Anna cannot read what only root may, nor write her own read-only file.
    QSet<QString> forAnna = kWrongForBoth;
    forAnna << kUser + "/readonly.prefs" << kUser + "/Common/MediaCore/private.bin" << kLocal + "/private700";
    EXPECT_EQ(audit(false), inWalkOrder(forAnna));

    // A left-out folder gives no result at all, not an empty one. A folder that is
    // not there has no attributes: owned by nobody and unreadable, it is wrong itself.
    const ProcessResult excluded = box.runAsRoot(
        {kAudit, kLocal + "/Updater6", kUser + "/LEGAL", kDocuments + "/Gone", kLocal + "/Gone"});
    EXPECT_EQ(excluded.out,
              "(left out)\n(left out)\n" + (kDocuments + "/Gone\n" + kLocal + "/Gone\n").toUtf8());
}

TEST_F(PermissionAuditTest, PermissiontoolCorrectsEverythingButAHardLinkedFileAndTouchesNothingElse)
{
    // A second name, in anna's folder, of a root file outside the Adobe folders.
    folder(QStringLiteral("/Library/Outside"), Root);
    file(QStringLiteral("/Library/Outside/secret"), Root, 0600);
    ASSERT_EQ(::link(QFile::encodeName(box.hostPath("/Library/Outside/secret")).constData(),
                     QFile::encodeName(box.hostPath(kUser + "/secret-link")).constData()),
              0);
    const QStringList untouched{kLocal + "/Updater6/private600",
                                kLocal + "/Linguistics/private600",
                                kUser + "/LEGAL/root.prefs",
                                kUser + "/.DS_Store",
                                kUser + "/Edit~recover.prproj",
                                kUser + "/Plugin.bundle/root.prefs",
                                QStringLiteral("/Library/Outside/secret")};
    std::vector<struct stat> before;
    for (const QString &path : untouched)
        before.push_back(hostInfo(path));

    // The repair's step runs the tool as a repair does, its status unread.
    const ProcessResult step = box.runAsRoot({box.installInBundle(QStringLiteral("app-setpermissions"))});
    EXPECT_EQ(step.exitCode, 0) << step.err.constData();

    EXPECT_EQ(audit(true), QStringList{kUser + "/secret-link"});
    EXPECT_EQ(audit(false), QStringList{kUser + "/secret-link"});
    for (size_t i = 0; i < before.size(); ++i) {
        const struct stat after = hostInfo(untouched[int(i)]);
        EXPECT_EQ(after.st_uid, before[i].st_uid) << qPrintable(untouched[int(i)]);
        EXPECT_EQ(after.st_mode, before[i].st_mode) << qPrintable(untouched[int(i)]);
    }
    EXPECT_EQ(box.readFile(QStringLiteral("/Library/Outside/secret")), "contents of /Library/Outside/secret");
    // Outside the home only modes change; items there stay root's.
    EXPECT_EQ(hostInfo(kLocal + "/private640").st_uid, 0u);
    EXPECT_EQ(hostInfo(kLocal + "/SLStore/group775").st_mode & 07777, 0777u);
    EXPECT_EQ(hostInfo(kUser + "/WrongFolder/root.prefs").st_uid, annaUid);

    // Nothing left to do: run again, the tool succeeds but for the link.
    const ProcessResult again = box.runAsRoot({kTool});
    EXPECT_EQ(again.exitCode, 1);
    EXPECT_EQ(again.err, "permissiontool: left " + (kUser + "/secret-link").toUtf8() +
                             " as it is: it has 2 hard links\n");
}

TEST_F(PermissionAuditTest, ATreeDeeperThanAnyPathEndsTheWalkWithoutHarm)
{
    // Made by descriptors: the path soon outgrows what a system call takes.
    int fd = ::open(QFile::encodeName(box.hostPath(kUser)).constData(), O_RDONLY | O_DIRECTORY);
    for (int depth = 0; depth < 3000 && fd >= 0; ++depth) {
        ::mkdirat(fd, "d", 0755);
        ASSERT_EQ(::fchownat(fd, "d", annaUid, annaGid, AT_SYMLINK_NOFOLLOW), 0) << depth;
        const int next = ::openat(fd, "d", O_RDONLY | O_DIRECTORY);
        ::close(fd);
        fd = next;
    }
    ASSERT_GE(fd, 0);
    ASSERT_EQ(::close(::openat(fd, "deep.prefs", O_CREAT | O_WRONLY, 0600)), 0);
    ::close(fd);

    const ProcessResult audited = box.runAsRoot({kAudit, kUser});
    EXPECT_EQ(audited.exitCode, 0) << audited.err.constData();
    EXPECT_FALSE(audited.out.contains("deep.prefs"));
    const ProcessResult repaired = box.runAsRoot({kTool});
    EXPECT_FALSE(repaired.crashed);
}

}  // namespace
