// Private folders in process: where they are made and with which name, owner and
// mode, which temporary folders count as safe to make them in, and what their
// removal touches.

#include "system/HXPrivateFolder.h"
#include "tests/support/TestFiles.h"

#include <QByteArray>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <cerrno>
#include <sys/stat.h>
#include <unistd.h>

namespace {

const QString kPrefix = QStringLiteral("Mendwell-test");

// TMPDIR for one test, put back afterwards.
class PrivateFolderTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(base.isValid());
        root = QFileInfo(base.path()).canonicalFilePath();
        saved = qgetenv("TMPDIR");
        hadTemporary = qEnvironmentVariableIsSet("TMPDIR");
        qputenv("TMPDIR", QFile::encodeName(root));
    }
    void TearDown() override
    {
        if (hadTemporary)
            qputenv("TMPDIR", saved);
        else
            qunsetenv("TMPDIR");
    }

    QString folder(const QString &name, mode_t mode) const
    {
        const QString path = root + QLatin1Char('/') + name;
        EXPECT_TRUE(QDir().mkpath(path));
        EXPECT_EQ(::chmod(QFile::encodeName(path).constData(), mode), 0);
        return path;
    }

    static struct stat infoOf(const QString &path)
    {
        struct stat info {};
        EXPECT_EQ(::lstat(QFile::encodeName(path).constData(), &info), 0) << path.toStdString();
        return info;
    }

    QTemporaryDir base;
    QString root;
    QByteArray saved;
    bool hadTemporary = false;
};

TEST_F(PrivateFolderTest, MadeAloneUnderARandomNameAndRemovedWithItsContentsButNotWhatItsLinksName)
{
    QFile outside(root + QStringLiteral("/outside.txt"));
    ASSERT_TRUE(outside.open(QIODevice::WriteOnly));
    outside.write("kept");
    outside.close();
    QString first;
    QString second;
    {
        std::optional<HXPrivateFolder> made = HXPrivateFolder::make(kPrefix);
        std::optional<HXPrivateFolder> other = HXPrivateFolder::make(kPrefix);
        ASSERT_TRUE(made && other);
        first = made->path();
        second = other->path();
        EXPECT_NE(first, second);
        const QRegularExpression name(QStringLiteral("^") + QRegularExpression::escape(root) +
                                      QStringLiteral("/Mendwell-test\\.[A-Za-z0-9]{10}$"));
        EXPECT_TRUE(name.match(first).hasMatch()) << first.toStdString();
        const struct stat info = infoOf(first);
        EXPECT_TRUE(S_ISDIR(info.st_mode));
        EXPECT_EQ(info.st_mode & 07777, 0700u);
        EXPECT_EQ(info.st_uid, ::geteuid());
        EXPECT_EQ(made->pathOf(QStringLiteral("Name.app")), first + QStringLiteral("/Name.app"));

        ASSERT_TRUE(QDir().mkpath(made->pathOf(QStringLiteral("inner/deeper"))));
        QFile inner(made->pathOf(QStringLiteral("inner/deeper/file")));
        ASSERT_TRUE(inner.open(QIODevice::WriteOnly));
        inner.close();
        ASSERT_TRUE(QFile::link(outside.fileName(), made->pathOf(QStringLiteral("to-file"))));
        ASSERT_TRUE(QFile::link(root, made->pathOf(QStringLiteral("inner/to-parent"))));

        // A moved-from folder removes nothing; the one it moved into removes once.
        HXPrivateFolder moved = std::move(*made);
        made.reset();
        EXPECT_TRUE(QFileInfo::exists(first));
        EXPECT_EQ(moved.path(), first);
        *other = std::move(moved);
        EXPECT_FALSE(QFileInfo::exists(second));
        EXPECT_TRUE(QFileInfo::exists(first));
    }
    EXPECT_FALSE(QFileInfo::exists(first));
    EXPECT_FALSE(QFileInfo::exists(second));
    ASSERT_TRUE(outside.open(QIODevice::ReadOnly));
    EXPECT_EQ(outside.readAll(), QByteArray("kept"));
    EXPECT_EQ(QDir(root).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden),
              QStringList{QStringLiteral("outside.txt")});
}

TEST_F(PrivateFolderTest, ModeIsExactlyPrivateWhateverTheUmaskAndSharingOpensItToOneGroupForReading)
{
    const mode_t previous = ::umask(0277);
    std::optional<HXPrivateFolder> made = HXPrivateFolder::make(kPrefix);
    ::umask(previous);
    ASSERT_TRUE(made);
    EXPECT_EQ(infoOf(made->path()).st_mode & 07777, 0700u);
    if (::geteuid() != 0)
        return;
    EXPECT_TRUE(made->shareWithGroup(4242));
    const struct stat shared = infoOf(made->path());
    EXPECT_EQ(shared.st_mode & 07777, 0750u);
    EXPECT_EQ(shared.st_gid, 4242u);
    EXPECT_EQ(shared.st_uid, 0u);
}

TEST_F(PrivateFolderTest, OnlyAWayNobodyElseCanChangeIsSafe)
{
    const QString sticky = folder(QStringLiteral("sticky"), 01777);
    const QString open = folder(QStringLiteral("open"), 0777);
    const QString inner = folder(QStringLiteral("open/inner"), 0700);
    const QString group = folder(QStringLiteral("group"), 0770);
    ASSERT_TRUE(QFile::link(sticky, root + QStringLiteral("/to-sticky")));
    ASSERT_TRUE(QFile::link(open, root + QStringLiteral("/to-open")));
    QFile file(root + QStringLiteral("/file"));
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.close();

    EXPECT_TRUE(HXPrivateFolder::isSafeParent(QStringLiteral("/")));
    EXPECT_TRUE(HXPrivateFolder::isSafeParent(root));
    EXPECT_TRUE(HXPrivateFolder::isSafeParent(sticky));
    EXPECT_TRUE(HXPrivateFolder::isSafeParent(root + QStringLiteral("/to-sticky")));
    EXPECT_FALSE(HXPrivateFolder::isSafeParent(open));
    EXPECT_FALSE(HXPrivateFolder::isSafeParent(inner));
    EXPECT_FALSE(HXPrivateFolder::isSafeParent(group));
    EXPECT_FALSE(HXPrivateFolder::isSafeParent(root + QStringLiteral("/to-open")));
    EXPECT_FALSE(HXPrivateFolder::isSafeParent(root + QStringLiteral("/missing")));
    EXPECT_FALSE(HXPrivateFolder::isSafeParent(file.fileName()));
    EXPECT_FALSE(HXPrivateFolder::isSafeParent(QString()));
    if (::geteuid() == 0) {
        // Another user's folder, however closed, and everything below it.
        const QString theirs = folder(QStringLiteral("theirs"), 0700);
        const QString below = folder(QStringLiteral("theirs/below"), 0700);
        ASSERT_EQ(::chown(QFile::encodeName(theirs).constData(), 4242, 4242), 0);
        EXPECT_FALSE(HXPrivateFolder::isSafeParent(theirs));
        EXPECT_FALSE(HXPrivateFolder::isSafeParent(below));
    }
}

TEST_F(PrivateFolderTest, AnUnsafeTemporaryFolderGivesWayToTmpAndAnUnsafeParentToNothing)
{
    const QString open = folder(QStringLiteral("open"), 0777);
    int error = 0;
    EXPECT_FALSE(HXPrivateFolder::makeIn(open, kPrefix, &error));
    EXPECT_EQ(error, EACCES);
    error = 0;
    EXPECT_FALSE(HXPrivateFolder::makeIn(root + QStringLiteral("/missing"), kPrefix, &error));
    EXPECT_NE(error, 0);

    qputenv("TMPDIR", QFile::encodeName(open));
    std::optional<HXPrivateFolder> made = HXPrivateFolder::make(kPrefix, &error);
    ASSERT_TRUE(made) << error;
    EXPECT_TRUE(made->path().startsWith(QFileInfo(QStringLiteral("/tmp")).canonicalFilePath() +
                                        QStringLiteral("/Mendwell-test.")))
        << made->path().toStdString();
    EXPECT_TRUE(QDir(open).isEmpty());
}

}  // namespace
