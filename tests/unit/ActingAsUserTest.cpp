// Root doing a user's part with her identity: the thread's file-system identity,
// how paths resolve for each identity, and the folders root may work in for her.

#include "platform/Folder.h"
#include "platform/Identity.h"
#include "platform/Trash.h"

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

namespace {

QByteArray encoded(const QString &path)
{
    return QFile::encodeName(path);
}

class ActingAsUserTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (::geteuid() != 0)
            GTEST_SKIP() << "changing identities needs root";
        const std::optional<platform::Account> found = platform::accountNamed(QStringLiteral("anna"));
        if (!found)
            GTEST_SKIP() << "the test account anna does not exist (scripts/setup-tests.sh)";
        anna = *found;
        ASSERT_TRUE(m_dir.isValid());
        root = m_dir.path();
        ::chmod(encoded(root).constData(), 0755);
        home = root + QStringLiteral("/home");
        annaFolder(home);
        // Root's decoy beside her home: a folder and a file only root may read.
        ASSERT_TRUE(QDir().mkpath(root + QStringLiteral("/decoy")));
        ::chmod(encoded(root + QStringLiteral("/decoy")).constData(), 0755);
        writeFile(root + QStringLiteral("/decoy/secret"), "root's", 0600);
    }

    // PATH and every folder made for it are anna's.
    void annaFolder(const QString &path, mode_t mode = 0755) const
    {
        QStringList made;
        for (QString probe = path; !QFile::exists(probe); probe = QFileInfo(probe).path())
            made.prepend(probe);
        ASSERT_TRUE(QDir().mkpath(path));
        for (const QString &folder : made)
            ASSERT_EQ(::lchown(encoded(folder).constData(), anna.uid, anna.gid), 0);
        ::chmod(encoded(path).constData(), mode);
    }

    void annaLink(const QString &target, const QString &path, uid_t owner) const
    {
        ASSERT_EQ(::symlink(encoded(target).constData(), encoded(path).constData()), 0);
        ASSERT_EQ(::lchown(encoded(path).constData(), owner, owner), 0);
    }

    static void writeFile(const QString &path, const QByteArray &contents, mode_t mode)
    {
        QFile file(path);
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(contents);
        file.close();
        ::chmod(encoded(path).constData(), mode);
    }

    static struct stat lookAt(const QString &path)
    {
        struct stat info {};
        ::lstat(encoded(path).constData(), &info);
        return info;
    }

    platform::Account anna;
    QTemporaryDir m_dir;
    QString root;
    QString home;
};

}  // namespace

TEST_F(ActingAsUserTest, OnlyThisThreadTakesHerRightsAndGetsRootsBack)
{
    const QString secret = root + QStringLiteral("/decoy/secret");
    // A thread already running (the log writer) keeps root's rights meanwhile.
    std::atomic<int> step{0};
    bool otherReads = false;
    std::thread other([&] {
        while (step.load() == 0)
            std::this_thread::yield();
        const int fd = ::open(encoded(secret).constData(), O_RDONLY | O_CLOEXEC);
        otherReads = fd >= 0;
        if (fd >= 0)
            ::close(fd);
        step.store(2);
    });
    {
        const platform::ActingAs acting(anna);
        ASSERT_TRUE(acting.isActing());
        EXPECT_FALSE(platform::hasRootRights());
        EXPECT_EQ(platform::actingUser(), std::optional<uid_t>(anna.uid));
        // The kernel checks her: root's file stays closed, what is made is hers.
        EXPECT_LT(::open(encoded(secret).constData(), O_RDONLY | O_CLOEXEC), 0);
        EXPECT_EQ(errno, EACCES);
        const int made = ::open(encoded(home + QStringLiteral("/made")).constData(),
                                O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
        ASSERT_GE(made, 0);
        ::close(made);
        EXPECT_EQ(lookAt(home + QStringLiteral("/made")).st_uid, anna.uid);
        EXPECT_EQ(lookAt(home + QStringLiteral("/made")).st_gid, anna.gid);
        step.store(1);
        other.join();
        EXPECT_TRUE(otherReads);

        // A thread started now inherits her identity, until it takes the process's own.
        bool inheritedReads = true;
        bool ownReads = false;
        std::thread([&] {
            const int inherited = ::open(encoded(secret).constData(), O_RDONLY | O_CLOEXEC);
            inheritedReads = inherited >= 0;
            if (inherited >= 0)
                ::close(inherited);
            platform::useProcessIdentity();
            const int fd = ::open(encoded(secret).constData(), O_RDONLY | O_CLOEXEC);
            ownReads = fd >= 0;
            if (fd >= 0)
                ::close(fd);
        }).join();
        EXPECT_FALSE(inheritedReads);
        EXPECT_TRUE(ownReads);

        {
            const platform::WithRootRights lent;
            EXPECT_TRUE(platform::hasRootRights());
            const int fd = ::open(encoded(secret).constData(), O_RDONLY | O_CLOEXEC);
            EXPECT_GE(fd, 0);
            if (fd >= 0)
                ::close(fd);
        }
        EXPECT_EQ(platform::actingUser(), std::optional<uid_t>(anna.uid));
        EXPECT_LT(::open(encoded(secret).constData(), O_RDONLY | O_CLOEXEC), 0);
    }
    EXPECT_TRUE(platform::hasRootRights());
    EXPECT_FALSE(platform::actingUser());
    const int fd = ::open(encoded(secret).constData(), O_RDONLY | O_CLOEXEC);
    EXPECT_GE(fd, 0);
    if (fd >= 0)
        ::close(fd);
}

TEST_F(ActingAsUserTest, HerLinksLeadHerOnWhileRootFollowsNoneOfThem)
{
    // Her own link in a group-writable folder of hers, a link another user made,
    // and ".." in the path: the platform follows all three for her.
    annaFolder(home + QStringLiteral("/Cloud/Documents/Adobe"));
    annaFolder(home + QStringLiteral("/Shared"), 0775);
    annaLink(home + QStringLiteral("/Cloud/Documents"), home + QStringLiteral("/Shared/Documents"), anna.uid);
    annaLink(home + QStringLiteral("/Cloud"), home + QStringLiteral("/Admins"), anna.uid + 1);
    const QStringList spellings{home + QStringLiteral("/Shared/Documents/Adobe"),
                                home + QStringLiteral("/Admins/Documents/Adobe"),
                                home + QStringLiteral("/Shared/../Cloud/Documents/Adobe")};
    {
        const platform::ActingAs acting(anna);
        for (const QString &path : spellings) {
            int error = 0;
            EXPECT_TRUE(platform::Folder::open(path, &error)) << path.toStdString() << " " << error;
            EXPECT_TRUE(platform::Item::open(path + QStringLiteral("/new"), &error)) << path.toStdString();
        }
        // Made by her, as hers, through her link.
        EXPECT_TRUE(platform::Folder::openMakingPath(home + QStringLiteral("/Shared/Documents/Adobe/A/B"),
                                                     0755, std::nullopt));
        EXPECT_EQ(lookAt(home + QStringLiteral("/Cloud/Documents/Adobe/A/B")).st_uid, anna.uid);
        // Her rights still hold her: a link of hers to root's folder opens, but
        // nothing inside it that root keeps closed.
        annaLink(root + QStringLiteral("/decoy"), home + QStringLiteral("/Decoy"), anna.uid);
        const std::optional<platform::Folder> decoy = platform::Folder::open(home + QStringLiteral("/Decoy"));
        ASSERT_TRUE(decoy);
        EXPECT_LT(decoy->openFileForReading(QStringLiteral("secret")), 0);
        EXPECT_NE(decoy->rename(QStringLiteral("secret"), *decoy, QStringLiteral("moved"), false), 0);
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
    EXPECT_FALSE(platform::Folder::openAs(anna, home + QStringLiteral("/Decoy"), std::nullopt, &error));
    EXPECT_EQ(error, EPERM);
    EXPECT_TRUE(platform::hasRootRights());
}

TEST_F(ActingAsUserTest, HerTrashMustBeHersAndHerLockedFlagsAreHersToChange)
{
    // Her own link to her trash elsewhere works; one to root's folder does not,
    // whoever trashes.
    annaFolder(home + QStringLiteral("/Elsewhere/Trash/files"), 0700);
    annaFolder(home + QStringLiteral("/Elsewhere/Trash/info"), 0700);
    annaFolder(home + QStringLiteral("/.local/share"));
    annaLink(home + QStringLiteral("/Elsewhere/Trash"), home + QStringLiteral("/.local/share/Trash"),
             anna.uid);
    writeFile(home + QStringLiteral("/item.txt"), "hers", 0644);
    ::lchown(encoded(home + QStringLiteral("/item.txt")).constData(), anna.uid, anna.gid);
    {
        const platform::ActingAs acting(anna);
        const platform::trash::Outcome outcome = platform::trash::moveToTrash(
            home + QStringLiteral("/item.txt"), home + QStringLiteral("/.local/share/Trash/files"));
        EXPECT_TRUE(outcome.trashed) << outcome.error;
    }
    EXPECT_TRUE(QFile::exists(home + QStringLiteral("/Elsewhere/Trash/files/item.txt")));
    EXPECT_EQ(lookAt(home + QStringLiteral("/Elsewhere/Trash/info/item.txt.trashinfo")).st_uid, anna.uid);

    // A trash whose files folder leads to root's decoy takes nothing, not even from root.
    QFile::remove(home + QStringLiteral("/.local/share/Trash"));
    annaFolder(home + QStringLiteral("/.local/share/Trash/info"), 0700);
    annaLink(root + QStringLiteral("/decoy"), home + QStringLiteral("/.local/share/Trash/files"), anna.uid);
    writeFile(root + QStringLiteral("/machine.plist"), "machine", 0644);
    const platform::trash::Outcome refused = platform::trash::moveToTrash(
        root + QStringLiteral("/machine.plist"), home + QStringLiteral("/.local/share/Trash/files"));
    EXPECT_FALSE(refused.trashed);
    EXPECT_TRUE(QFile::exists(root + QStringLiteral("/machine.plist")));
    EXPECT_FALSE(QFile::exists(root + QStringLiteral("/decoy/machine.plist")));

    // The locked flag: her own item she may lock and unlock (as on the Mac), root's not.
    writeFile(home + QStringLiteral("/locked.txt"), "x", 0644);
    ::lchown(encoded(home + QStringLiteral("/locked.txt")).constData(), anna.uid, anna.gid);
    writeFile(home + QStringLiteral("/roots.txt"), "x", 0644);
    const std::optional<platform::Folder> folder = platform::Folder::open(home);
    ASSERT_TRUE(folder);
    if (!folder->isImmutable(QStringLiteral("locked.txt")))
        GTEST_SKIP() << "this file system has no locked flag";
    {
        const platform::ActingAs acting(anna);
        const int locked = folder->setImmutable(QStringLiteral("locked.txt"), true);
        if (locked == ENOTTY || locked == EOPNOTSUPP)
            GTEST_SKIP() << "this file system has no locked flag";
        EXPECT_EQ(locked, 0);
        EXPECT_EQ(folder->isImmutable(QStringLiteral("locked.txt")), std::optional<bool>(true));
        EXPECT_EQ(folder->setImmutable(QStringLiteral("roots.txt"), true), EPERM);
        EXPECT_EQ(folder->setImmutable(QStringLiteral("locked.txt"), false), 0);
    }
    EXPECT_EQ(folder->isImmutable(QStringLiteral("locked.txt")), std::optional<bool>(false));
    EXPECT_EQ(folder->isImmutable(QStringLiteral("roots.txt")), std::optional<bool>(false));
}
