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

using namespace Qt::Literals::StringLiterals;

namespace {

const QString kPrefix = u"Mendwell-test"_s;

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
        const QString path = root + u'/' + name;
        EXPECT_TRUE(QDir().mkpath(path) && disk::chmod(path, mode));
        return path;
    }

    QTemporaryDir base;
    QString root;
    QByteArray saved;
    bool hadTemporary = false;
};

TEST_F(PrivateFolderTest, MadeAloneUnderARandomNameAndRemovedWithItsContentsButNotWhatItsLinksName)
{
    const QString outside = root + u"/outside.txt"_s;
    ASSERT_TRUE(disk::write(outside, "kept"));
    QString first;
    QString second;
    {
        std::optional<HXPrivateFolder> made = HXPrivateFolder::make(kPrefix);
        std::optional<HXPrivateFolder> other = HXPrivateFolder::make(kPrefix);
        ASSERT_TRUE(made && other);
        first = made->path();
        second = other->path();
        EXPECT_NE(first, second);
        const QRegularExpression name(u"^"_s + QRegularExpression::escape(root) +
                                      u"/Mendwell-test\\.[A-Za-z0-9]{10}$"_s);
        EXPECT_TRUE(name.match(first).hasMatch()) << first.toStdString();
        const struct stat info = disk::info(first);
        EXPECT_TRUE(S_ISDIR(info.st_mode));
        EXPECT_EQ(info.st_mode & 07777, 0700u);
        EXPECT_EQ(info.st_uid, ::geteuid());
        EXPECT_EQ(made->pathOf(u"Name.app"_s), first + u"/Name.app"_s);

        ASSERT_TRUE(disk::write(made->pathOf(u"inner/deeper/file"_s)));
        ASSERT_TRUE(QFile::link(outside, made->pathOf(u"to-file"_s)));
        ASSERT_TRUE(QFile::link(root, made->pathOf(u"inner/to-parent"_s)));

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
    EXPECT_EQ(disk::read(outside), QByteArray("kept"));
    EXPECT_EQ(QDir(root).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden),
              QStringList{u"outside.txt"_s});
}

TEST_F(PrivateFolderTest, ModeIsExactlyPrivateWhateverTheUmaskAndSharingOpensItToOneGroupForReading)
{
    const mode_t previous = ::umask(0277);
    std::optional<HXPrivateFolder> made = HXPrivateFolder::make(kPrefix);
    ::umask(previous);
    ASSERT_TRUE(made);
    EXPECT_EQ(disk::info(made->path()).st_mode & 07777, 0700u);
    if (::geteuid() != 0)
        return;
    EXPECT_TRUE(made->shareWithGroup(4242));
    const struct stat shared = disk::info(made->path());
    EXPECT_EQ(shared.st_mode & 07777, 0750u);
    EXPECT_EQ(shared.st_gid, 4242u);
    EXPECT_EQ(shared.st_uid, 0u);
}

TEST_F(PrivateFolderTest, OnlyAWayNobodyElseCanChangeIsSafe)
{
    const QString sticky = folder(u"sticky"_s, 01777);
    const QString open = folder(u"open"_s, 0777);
    const QString inner = folder(u"open/inner"_s, 0700);
    const QString group = folder(u"group"_s, 0770);
    ASSERT_TRUE(QFile::link(sticky, root + u"/to-sticky"_s));
    ASSERT_TRUE(QFile::link(open, root + u"/to-open"_s));
    ASSERT_TRUE(disk::write(root + u"/file"_s));

    for (const QString &safe : {u"/"_s, root, sticky, root + u"/to-sticky"_s})
        EXPECT_TRUE(HXPrivateFolder::isSafeParent(safe)) << safe.toStdString();
    for (const QString &unsafe :
         {open, inner, group, root + u"/to-open"_s, root + u"/missing"_s, root + u"/file"_s, QString()})
        EXPECT_FALSE(HXPrivateFolder::isSafeParent(unsafe)) << unsafe.toStdString();
    if (::geteuid() == 0) {
        // Another user's folder, however closed, and everything below it.
        const QString theirs = folder(u"theirs"_s, 0700);
        const QString below = folder(u"theirs/below"_s, 0700);
        ASSERT_TRUE(disk::chown(theirs, 4242, 4242));
        EXPECT_FALSE(HXPrivateFolder::isSafeParent(theirs));
        EXPECT_FALSE(HXPrivateFolder::isSafeParent(below));
    }
}

TEST_F(PrivateFolderTest, AnUnsafeTemporaryFolderGivesWayToTmpAndAnUnsafeParentToNothing)
{
    const QString open = folder(u"open"_s, 0777);
    int error = 0;
    EXPECT_FALSE(HXPrivateFolder::makeIn(open, kPrefix, &error));
    EXPECT_EQ(error, EACCES);
    error = 0;
    EXPECT_FALSE(HXPrivateFolder::makeIn(root + u"/missing"_s, kPrefix, &error));
    EXPECT_NE(error, 0);

    qputenv("TMPDIR", QFile::encodeName(open));
    std::optional<HXPrivateFolder> made = HXPrivateFolder::make(kPrefix, &error);
    ASSERT_TRUE(made) << error;
    EXPECT_TRUE(made->path().startsWith(QFileInfo(u"/tmp"_s).canonicalFilePath() + u"/Mendwell-test."_s))
        << made->path().toStdString();
    EXPECT_TRUE(QDir(open).isEmpty());
}

}  // namespace
