// Root doing a user's part with her identity: the thread's file-system identity,
// how paths resolve for each identity, and the folders root may work in for her.

#include "platform/Folder.h"
#include "platform/Identity.h"
#include "platform/Trash.h"
#include "tests/support/TestFiles.h"

#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>

#include <atomic>

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

using namespace Qt::Literals::StringLiterals;

namespace {

// Whether this thread's identity may open PATH for reading.
bool canRead(const QString &path)
{
    const int fd = ::open(QFile::encodeName(path).constData(), O_RDONLY | O_CLOEXEC);
    if (fd >= 0)
        ::close(fd);
    return fd >= 0;
}

class ActingAsUserTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (::geteuid() != 0)
            GTEST_SKIP() << "changing identities needs root";
        const std::optional<platform::Account> found = platform::accountNamed(u"anna"_s);
        if (!found)
            GTEST_SKIP() << "the test account anna does not exist (scripts/setup-tests.sh)";
        anna = *found;
        ASSERT_TRUE(m_dir.isValid());
        root = m_dir.path();
        ASSERT_TRUE(disk::chmod(root, 0755));
        home = root + u"/home"_s;
        annaFolder(home);
        // Root's decoy beside her home: a folder and a file only root may read.
        ASSERT_TRUE(disk::write(root + u"/decoy/secret"_s, "root's", 0600));
        ASSERT_TRUE(disk::chmod(root + u"/decoy"_s, 0755));
    }

    // PATH and every folder made for it are anna's.
    void annaFolder(const QString &path, mode_t mode = 0755) const
    {
        ASSERT_TRUE(disk::makePath(path, anna.uid, anna.gid) && disk::chmod(path, mode));
    }

    void annaLink(const QString &target, const QString &path, uid_t owner) const
    {
        ASSERT_TRUE(QFile::link(target, path) && disk::chown(path, owner, owner));
    }

    // An item of hers at PATH.
    void annaFile(const QString &path) const
    {
        ASSERT_TRUE(disk::write(path, "hers", 0644) && disk::chown(path, anna.uid, anna.gid));
    }

    platform::Account anna;
    QTemporaryDir m_dir;
    QString root;
    QString home;
};

}  // namespace

TEST_F(ActingAsUserTest, OnlyThisThreadTakesHerRightsAndGetsRootsBack)
{
    const QString secret = root + u"/decoy/secret"_s;
    // A thread already running (the log writer) keeps root's rights meanwhile.
    std::atomic<int> step{0};
    bool otherReads = false;
    std::thread other([&] {
        while (step.load() == 0)
            std::this_thread::yield();
        otherReads = canRead(secret);
        step.store(2);
    });
    {
        const platform::ActingAs acting(anna);
        ASSERT_TRUE(acting.isActing());
        EXPECT_FALSE(platform::hasRootRights());
        EXPECT_EQ(platform::actingUser(), std::optional<uid_t>(anna.uid));
        // The kernel checks her: root's file stays closed, what is made is hers.
        EXPECT_FALSE(canRead(secret));
        EXPECT_EQ(errno, EACCES);
        ASSERT_TRUE(disk::write(home + u"/made"_s));
        EXPECT_EQ(disk::info(home + u"/made"_s).st_uid, anna.uid);
        EXPECT_EQ(disk::info(home + u"/made"_s).st_gid, anna.gid);
        step.store(1);
        other.join();
        EXPECT_TRUE(otherReads);

        // A thread started now inherits her identity, until it takes the process's own.
        bool inheritedReads = true;
        bool ownReads = false;
        std::thread([&] {
            inheritedReads = canRead(secret);
            platform::useProcessIdentity();
            ownReads = canRead(secret);
        }).join();
        EXPECT_FALSE(inheritedReads);
        EXPECT_TRUE(ownReads);

        {
            const platform::WithRootRights lent;
            EXPECT_TRUE(platform::hasRootRights());
            EXPECT_TRUE(canRead(secret));
        }
        EXPECT_EQ(platform::actingUser(), std::optional<uid_t>(anna.uid));
        EXPECT_FALSE(canRead(secret));
    }
    EXPECT_TRUE(platform::hasRootRights());
    EXPECT_FALSE(platform::actingUser());
    EXPECT_TRUE(canRead(secret));
}

TEST_F(ActingAsUserTest, HerLinksLeadHerOnWhileRootFollowsNoneOfThem)
{
    // Her own link in a group-writable folder of hers, a link another user made,
    // and ".." in the path: the platform follows all three for her.
    annaFolder(home + u"/Cloud/Documents/Adobe"_s);
    annaFolder(home + u"/Shared"_s, 0775);
    annaLink(home + u"/Cloud/Documents"_s, home + u"/Shared/Documents"_s, anna.uid);
    annaLink(home + u"/Cloud"_s, home + u"/Admins"_s, anna.uid + 1);
    const QStringList spellings{home + u"/Shared/Documents/Adobe"_s, home + u"/Admins/Documents/Adobe"_s,
                                home + u"/Shared/../Cloud/Documents/Adobe"_s};
    {
        const platform::ActingAs acting(anna);
        for (const QString &path : spellings) {
            int error = 0;
            EXPECT_TRUE(platform::Folder::open(path, &error)) << path.toStdString() << " " << error;
            EXPECT_TRUE(platform::Item::open(path + u"/new"_s, &error)) << path.toStdString();
        }
        // Made by her, as hers, through her link.
        EXPECT_TRUE(
            platform::Folder::openMakingPath(home + u"/Shared/Documents/Adobe/A/B"_s, 0755, std::nullopt));
        EXPECT_EQ(disk::info(home + u"/Cloud/Documents/Adobe/A/B"_s).st_uid, anna.uid);
        // Her rights still hold her: a link of hers to root's folder opens, but
        // nothing inside it that root keeps closed.
        annaLink(root + u"/decoy"_s, home + u"/Decoy"_s, anna.uid);
        const std::optional<platform::Folder> decoy = platform::Folder::open(home + u"/Decoy"_s);
        ASSERT_TRUE(decoy);
        EXPECT_LT(decoy->openFileForReading(u"secret"_s), 0);
        EXPECT_NE(decoy->rename(u"secret"_s, *decoy, u"moved"_s, false), 0);
    }
    // With root's own rights none of her links is followed, nor "..".
    for (const QString &path : spellings) {
        int error = 0;
        EXPECT_FALSE(platform::Folder::open(path, &error)) << path.toStdString();
        EXPECT_EQ(error, ELOOP) << path.toStdString();
    }
    // openAs: her way, but only to a folder of hers.
    int error = 0;
    EXPECT_TRUE(platform::Folder::openAs(anna, spellings.first(), std::nullopt, &error)) << error;
    EXPECT_FALSE(platform::Folder::openAs(anna, home + u"/Decoy"_s, std::nullopt, &error));
    EXPECT_EQ(error, EPERM);
    EXPECT_TRUE(platform::hasRootRights());
}

TEST_F(ActingAsUserTest, HerTrashMustBeHersAndHerLockedFlagsAreHersToChange)
{
    // Her own link to her trash elsewhere works; one to root's folder does not,
    // whoever trashes.
    annaFolder(home + u"/Elsewhere/Trash/files"_s, 0700);
    annaFolder(home + u"/Elsewhere/Trash/info"_s, 0700);
    annaFolder(home + u"/.local/share"_s);
    annaLink(home + u"/Elsewhere/Trash"_s, home + u"/.local/share/Trash"_s, anna.uid);
    annaFile(home + u"/item.txt"_s);
    {
        const platform::ActingAs acting(anna);
        const platform::trash::Outcome outcome =
            platform::trash::moveToTrash(home + u"/item.txt"_s, home + u"/.local/share/Trash/files"_s);
        EXPECT_TRUE(outcome.trashed) << outcome.error;
    }
    EXPECT_TRUE(QFile::exists(home + u"/Elsewhere/Trash/files/item.txt"_s));
    EXPECT_EQ(disk::info(home + u"/Elsewhere/Trash/info/item.txt.trashinfo"_s).st_uid, anna.uid);

    // A trash whose files folder leads to root's decoy takes nothing, not even from root.
    QFile::remove(home + u"/.local/share/Trash"_s);
    annaFolder(home + u"/.local/share/Trash/info"_s, 0700);
    annaLink(root + u"/decoy"_s, home + u"/.local/share/Trash/files"_s, anna.uid);
    ASSERT_TRUE(disk::write(root + u"/machine.plist"_s, "machine", 0644));
    const platform::trash::Outcome refused =
        platform::trash::moveToTrash(root + u"/machine.plist"_s, home + u"/.local/share/Trash/files"_s);
    EXPECT_FALSE(refused.trashed);
    EXPECT_TRUE(QFile::exists(root + u"/machine.plist"_s));
    EXPECT_FALSE(QFile::exists(root + u"/decoy/machine.plist"_s));

    // The locked flag: her own item she may lock and unlock (as on the Mac), root's not.
    annaFile(home + u"/locked.txt"_s);
    ASSERT_TRUE(disk::write(home + u"/roots.txt"_s, "x", 0644));
    const std::optional<platform::Folder> folder = platform::Folder::open(home);
    ASSERT_TRUE(folder);
    if (!folder->isImmutable(u"locked.txt"_s))
        GTEST_SKIP() << "this file system has no locked flag";
    {
        const platform::ActingAs acting(anna);
        const int locked = folder->setImmutable(u"locked.txt"_s, true);
        if (locked == ENOTTY || locked == EOPNOTSUPP)
            GTEST_SKIP() << "this file system has no locked flag";
        EXPECT_EQ(locked, 0);
        EXPECT_EQ(folder->isImmutable(u"locked.txt"_s), std::optional<bool>(true));
        EXPECT_EQ(folder->setImmutable(u"roots.txt"_s, true), EPERM);
        EXPECT_EQ(folder->setImmutable(u"locked.txt"_s, false), 0);
    }
    EXPECT_EQ(folder->isImmutable(u"locked.txt"_s), std::optional<bool>(false));
    EXPECT_EQ(folder->isImmutable(u"roots.txt"_s), std::optional<bool>(false));
}
