// anna against root, in the sandbox: each class of root's operations runs on a
// tree of anna's while a process of hers swaps folders for links to a root-owned
// decoy outside her tree (tests/programs/rootattack.cpp). Nothing may reach the
// decoy, nor its secret reach anna. Each test prints the driver's figures, so a
// run by hand shows them.

#include "tests/support/Sandbox.h"

#include <gtest/gtest.h>

#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>

#include <cstdio>
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

const QString kDriver = QStringLiteral("/Applications/Mendwell.app/Contents/MacOS/rootattack");
const QString kDecoy = QStringLiteral("/Library/Decoy");
// Each racy class runs at least this many attempts with at least as many of
// anna's links put in place while root worked. The cap (seconds) only keeps a
// very slow machine from hanging the run; the count checks then fail.
constexpr int kAttempts = 1000;
const QString kSecondsCap = QStringLiteral("60");

struct Figures {
    int attempts = -1;
    int escapes = -1;
    int swaps = -1;
    int unanswered = -1;
};

int hostFlags(const QString &path)
{
    const int fd =
        ::open(QFile::encodeName(path).constData(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    int flags = -1;
    if (fd >= 0) {
        if (::ioctl(fd, FS_IOC_GETFLAGS, &flags) != 0)
            flags = -1;
        ::close(fd);
    }
    return flags;
}

class RootAttackTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        SKIP_WITHOUT_SANDBOX();
        ASSERT_TRUE(
            QFile::copy(QStringLiteral(MENDWELL_TEST_PROGRAMS_DIR "/rootattack"), box.hostPath(kDriver)));
        for (const char *folder : {"Library/Caches", "Library/Preferences", "Library/Logs", "Desktop"})
            ASSERT_TRUE(box.makeFolder(QStringLiteral("/Users/anna/") + QLatin1String(folder), true));
        ASSERT_TRUE(box.makeFolder(QStringLiteral("/Library/Preferences")));
    }

    void TearDown() override
    {
        // The decoy's locked file would keep the sandbox from being removed.
        const QString locked = box.hostPath(kDecoy + QStringLiteral("/locked.txt"));
        int flags = hostFlags(locked);
        if (flags > 0 && (flags & FS_IMMUTABLE_FL) != 0) {
            const int fd = ::open(QFile::encodeName(locked).constData(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
            flags &= ~FS_IMMUTABLE_FL;
            if (fd >= 0) {
                ::ioctl(fd, FS_IOC_SETFLAGS, &flags);
                ::close(fd);
            }
        }
    }

    Figures run(const QString &name, const QStringList &environment = {})
    {
        result = box.runAsRoot({kDriver, name, QString::number(kAttempts), kSecondsCap}, environment);
        std::printf("%s", result.out.constData());
        std::fflush(stdout);
        const QString out = QString::fromUtf8(result.out);
        auto figure = [&out](const char *key) {
            const QRegularExpressionMatch match =
                QRegularExpression(QLatin1String(key) + QStringLiteral("=(\\d+)")).match(out);
            return match.hasMatch() ? match.captured(1).toInt() : -1;
        };
        return {figure("attempts"), figure("escapes"), figure("swaps"), figure("unanswered")};
    }

    // The decoy as the driver made it, read from outside the sandbox: its names,
    // owners, modes, contents and the locked file's flag.
    std::string decoyDamage() const
    {
        const QString root = box.hostPath(kDecoy);
        QStringList names;
        QDirIterator it(root, QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden | QDir::System,
                        QDirIterator::Subdirectories);
        while (it.hasNext())
            names << it.next().mid(root.size() + 1);
        names.sort();
        std::string damage;
        if (names != QStringList{"item.txt", "locked.txt", "pref.xml", "secret", "sub", "sub/inner.txt",
                                 "sub/pref.xml"})
            damage += "entries: " + names.join(QLatin1Char(' ')).toStdString() + "\n";
        struct stat info {};
        if (::lstat(QFile::encodeName(root).constData(), &info) != 0 || !S_ISDIR(info.st_mode) ||
            (info.st_mode & 07777) != 0755 || info.st_uid != 0)
            damage += "the decoy folder changed\n";
        if (::lstat(QFile::encodeName(root + QStringLiteral("/secret")).constData(), &info) != 0 ||
            !S_ISREG(info.st_mode) || (info.st_mode & 07777) != 0600 || info.st_uid != 0 ||
            info.st_size != 256 || info.st_nlink != 1)
            damage += "the secret changed\n";
        for (const char *name : {"item.txt", "pref.xml", "sub/inner.txt", "sub/pref.xml", "locked.txt"})
            if (box.readFile(kDecoy + QLatin1Char('/') + QLatin1String(name)) !=
                QByteArray("decoy ") + name + '\n')
                damage += std::string(name) + " changed\n";
        const int flags = hostFlags(root + QStringLiteral("/locked.txt"));
        if (flags >= 0 && (flags & FS_IMMUTABLE_FL) == 0 && !result.err.contains("no immutable flag"))
            damage += "locked.txt was unlocked\n";
        return damage;
    }

    Sandbox box;
    ProcessResult result;
};

class RootAttackClassTest : public RootAttackTest, public ::testing::WithParamInterface<const char *> {};

}  // namespace

TEST_P(RootAttackClassTest, NothingReachesTheDecoyWhileAnnaSwapsFoldersForLinks)
{
    // The figures and the first escape are on standard output above.
    const Figures figures = run(QString::fromLatin1(GetParam()));
    if (result.out.contains(" skipped: "))
        GTEST_SKIP() << result.out.toStdString();
    EXPECT_GE(figures.attempts, kAttempts);
    EXPECT_GE(figures.swaps, kAttempts);
    EXPECT_EQ(figures.escapes, 0);
    EXPECT_EQ(result.exitCode, 0) << result.err.right(2000).toStdString();
    EXPECT_EQ(decoyDamage(), "");
}

INSTANTIATE_TEST_SUITE_P(Classes, RootAttackClassTest,
                         ::testing::Values("copy", "move", "trash", "remove", "mkdir", "zip", "records",
                                           "flags"),
                         [](const ::testing::TestParamInfo<const char *> &info) {
                             return std::string(info.param);
                         });

TEST_F(RootAttackTest, ProtectedFoldersAreRefusedUnderEverySpelling)
{
    const Figures figures = run(QStringLiteral("protected"));
    EXPECT_EQ(figures.attempts, 24);
    EXPECT_EQ(figures.escapes, 0);
    for (const char *text : {"Unable to delete path /Users/anna/ because it is a system directory.\n",
                             "Unable to delete path /Users/anna//Library because it is a system directory.\n",
                             "Unable to trash path /Users/anna/./Library because it is a system directory.\n",
                             "Unable to trash folder contents of path /Users/anna/Library/. because it is a "
                             "system directory.\n",
                             "Unable to move path /Library/Preferences/ because it is a system directory.\n"})
        EXPECT_TRUE(result.err.contains(text)) << text;
    EXPECT_EQ(decoyDamage(), "");
}

TEST_F(RootAttackTest, RootWithNobodyAtTheConsoleTrashesNothing)
{
    const Figures figures = run(QStringLiteral("noconsole"), {QStringLiteral("SUDO_USER=")});
    EXPECT_EQ(figures.escapes, 0);
    EXPECT_EQ(result.err.count("Error in authMoveFile: new path is null\n"), 1) << result.err.toStdString();
}

TEST_F(RootAttackTest, TheRunnerRefusesEveryHandMadeRequest)
{
    const Figures figures = run(QStringLiteral("runner"));
    EXPECT_GE(figures.attempts, 30);
    EXPECT_EQ(figures.escapes, 0);
    EXPECT_EQ(figures.unanswered, 0);
    EXPECT_EQ(decoyDamage(), "");
}
