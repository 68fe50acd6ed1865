// The descriptor layer root works through, and the checks of the typed requests.

#include "platform/Folder.h"
#include "system/HXPrivilegedRequest.h"
#include "tests/support/TestFiles.h"

#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <unistd.h>

using namespace Qt::Literals::StringLiterals;

namespace {

constexpr uid_t kOtherUid = 1001;

class FolderTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(m_dir.isValid());
        root = m_dir.path();
        ASSERT_TRUE(disk::write(root + u"/real/inner/file.txt"_s, "contents", 0640));
        ASSERT_TRUE(QFile::link(root + u"/real"_s, root + u"/link"_s));
    }

    struct stat lookAt(const QString &relative) const { return disk::info(root + u'/' + relative); }

    QTemporaryDir m_dir;
    QString root;
};

}  // namespace

TEST_F(FolderTest, FollowsOnlyLinksThatNobodyElseCanHaveMade)
{
    // /bin is root's link to usr/bin on merged systems, a plain folder elsewhere.
    ASSERT_TRUE(platform::Item::open(u"/bin/sh"_s));
    EXPECT_TRUE(platform::Item::open(u"/bin/sh"_s)->exists());

    // Our own link in our own folder leads on.
    EXPECT_TRUE(platform::Folder::open(root + u"/link/inner"_s));
    // The last component is the item itself, never followed.
    const auto link = platform::Item::open(root + u"/link"_s);
    ASSERT_TRUE(link);
    EXPECT_TRUE(S_ISLNK(link->info()->st_mode));

    // "..": a plain user's path climbs as the system climbs; root's walk refuses it.
    int error = 0;
    EXPECT_EQ(platform::Folder::open(root + u"/real/../link/inner"_s, &error).has_value(), geteuid() != 0);
    EXPECT_FALSE(platform::Item::open(u"/"_s));
    EXPECT_FALSE(platform::Item::open(root + u"/missing/item"_s, &error));
    EXPECT_EQ(error, ENOENT);
    // "." and doubled or trailing slashes are the same path.
    EXPECT_EQ(platform::absoluteItemPath(u"/Users//anna/./Library/."_s), u"/Users/anna/Library"_s);

    if (geteuid() != 0)
        GTEST_SKIP() << "the rest changes owners";
    // A link another user made, or one in a folder others may write to, stops the walk.
    ASSERT_TRUE(disk::chown(root + u"/link"_s, kOtherUid, kOtherUid));
    EXPECT_FALSE(platform::Folder::open(root + u"/link/inner"_s, &error));
    EXPECT_EQ(error, ELOOP);
    ASSERT_TRUE(disk::chown(root + u"/link"_s, 0, 0));
    ASSERT_TRUE(disk::chmod(root, 0777));
    EXPECT_FALSE(platform::Folder::open(root + u"/link/inner"_s));
    ASSERT_TRUE(disk::chmod(root, 01777));  // sticky: nobody replaces it
    EXPECT_TRUE(platform::Folder::open(root + u"/link/inner"_s));
}

TEST_F(FolderTest, CopiesTreesWithLinksModesAndOwnersAndRemovesThemWithoutFollowing)
{
    ASSERT_TRUE(QFile::link(u"/etc"_s, root + u"/real/inner/etc"_s));
    if (geteuid() == 0) {
        ASSERT_TRUE(disk::chown(root + u"/real/inner/file.txt"_s, kOtherUid, kOtherUid));
    }
    const auto top = platform::Folder::open(root);
    ASSERT_TRUE(top);
    ASSERT_EQ(top->copyTree(u"real"_s, *top, u"copy"_s), 0);
    EXPECT_EQ(top->copyTree(u"real"_s, *top, u"copy"_s), EEXIST);

    const struct stat copied = lookAt(u"copy/inner/file.txt"_s);
    EXPECT_EQ(copied.st_mode & 07777, 0640u);
    EXPECT_EQ(copied.st_uid, lookAt(u"real/inner/file.txt"_s).st_uid);
    EXPECT_EQ(lookAt(u"copy/inner"_s).st_mode & 07777, lookAt(u"real/inner"_s).st_mode & 07777);
    EXPECT_TRUE(S_ISLNK(lookAt(u"copy/inner/etc"_s).st_mode));

    // Removing the copy removes the link, not what it points to.
    ASSERT_EQ(top->removeTree(u"copy"_s), 0);
    EXPECT_FALSE(QFile::exists(root + u"/copy"_s));
    EXPECT_TRUE(QFile::exists(u"/etc/passwd"_s));
    // A rename never takes the place of what is there unless asked to.
    ASSERT_TRUE(QDir().mkpath(root + u"/other"_s));
    EXPECT_EQ(top->rename(u"real"_s, *top, u"other"_s, false), EEXIST);
    EXPECT_EQ(top->rename(u"real"_s, *top, u"other"_s, true), 0);
    EXPECT_TRUE(QFile::exists(root + u"/other/inner/file.txt"_s));
    // A new file never goes through a link in its place.
    EXPECT_LT(top->createFile(u"link"_s, 0600), 0);
    EXPECT_LT(top->createFile(u"../escape"_s, 0600), 0);
}

TEST_F(FolderTest, RootChangesNoFileWithMoreThanOneName)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "the rule is root's";
    ASSERT_TRUE(disk::write(root + u"/single"_s, "x", 0600) && disk::write(root + u"/shared"_s, "x", 0600));
    ASSERT_EQ(::link(QFile::encodeName(root + u"/shared"_s).constData(),
                     QFile::encodeName(root + u"/real/elsewhere"_s).constData()),
              0);
    const auto top = platform::Folder::open(root);
    ASSERT_TRUE(top);
    EXPECT_EQ(top->setMode(u"shared"_s, 0666), EMLINK);
    EXPECT_EQ(top->setOwner(u"shared"_s, kOtherUid, kOtherUid), EMLINK);
    EXPECT_EQ(lookAt(u"shared"_s).st_mode & 07777, 0600u);
    EXPECT_EQ(lookAt(u"shared"_s).st_uid, 0u);
    EXPECT_EQ(top->setMode(u"single"_s, 0644), 0);
    EXPECT_EQ(top->setOwner(u"single"_s, kOtherUid, kOtherUid), 0);
    EXPECT_EQ(lookAt(u"single"_s).st_mode & 07777, 0644u);
    EXPECT_EQ(lookAt(u"single"_s).st_uid, kOtherUid);
}

TEST(PrivilegedRequestTest, OnlyWellFormedRequestsOfTheKnownKindsDecode)
{
    using Op = HXPrivilegedOperation;
    HXPrivilegedRequest request{Op::Copy, {u"/a b/\u00e9"_s, u"/c"_s}};
    const auto decoded = HXPrivilegedRequest::decoded(request.encoded());
    ASSERT_TRUE(decoded);
    EXPECT_EQ(decoded->operation, Op::Copy);
    EXPECT_EQ(decoded->arguments, request.arguments);

    const auto decodes = [](const HXPrivilegedRequest &made) {
        return HXPrivilegedRequest::decoded(made.encoded()).has_value();
    };
    EXPECT_FALSE(decodes({Op::Remove, {u"relative"_s}}));
    EXPECT_FALSE(decodes({Op::Remove, {u"/a"_s, u"/b"_s}}));
    EXPECT_FALSE(decodes({Op::Trash, {u"/a"_s, u"../b"_s}}));
    EXPECT_FALSE(decodes({Op::RunHelper, {u"/bin/sh"_s, u"-c"_s}}));
    EXPECT_FALSE(decodes({Op::RunHelper, {u"../../bin/sh"_s}}));
    EXPECT_TRUE(decodes({Op::RunHelper, {u"killtool"_s}}));
    // The machine's password requirement: a boolean alone, never a file to write.
    EXPECT_TRUE(decodes({Op::RequireAdminPassword, {u"0"_s}}));
    EXPECT_FALSE(decodes({Op::RequireAdminPassword, {u"/etc/shadow"_s}}));
    EXPECT_FALSE(decodes({Op::RequireAdminPassword, {u"1"_s, u"/a"_s}}));

    EXPECT_FALSE(HXPrivilegedRequest::decoded("not a request"));
    EXPECT_FALSE(HXPrivilegedRequest::decoded(request.encoded().chopped(3)));
    QByteArray unknown = request.encoded();
    unknown[7] = 42;  // the operation's low byte
    EXPECT_FALSE(HXPrivilegedRequest::decoded(unknown));

    // Output is handed back only by a helper tool that is waited for.
    HXPrivilegedRequest capture{
        .operation = Op::RunHelper, .arguments = {u"permissiontool"_s}, .captureOutput = true};
    const auto captured = HXPrivilegedRequest::decoded(capture.encoded());
    ASSERT_TRUE(captured);
    EXPECT_TRUE(captured->captureOutput && captured->wait);
    capture.wait = false;
    EXPECT_FALSE(decodes(capture));
    request.captureOutput = true;
    EXPECT_FALSE(decodes(request));
    QByteArray flags = capture.encoded();
    flags[11] = 4;  // a flag no client sends
    EXPECT_FALSE(HXPrivilegedRequest::decoded(flags));
}

TEST(PrivilegedRequestTest, RepliesCarryTheirPathsAndOutputWhole)
{
    const HXPrivilegedReply reply{-60031, u"/Users/anna/.local/share/Trash/files/\u00e9 1"_s, u"/i"_s,
                                  QByteArray("a\0b\n", 4)};
    const std::optional<HXPrivilegedReply> decoded = HXPrivilegedReply::decoded(reply.encoded());
    ASSERT_TRUE(decoded);
    EXPECT_EQ(decoded->status, -60031);
    EXPECT_EQ(decoded->trashedPath, reply.trashedPath);
    EXPECT_EQ(decoded->infoPath, reply.infoPath);
    EXPECT_EQ(decoded->output, reply.output);
    EXPECT_FALSE(HXPrivilegedReply::decoded(reply.encoded() + 'x'));
    EXPECT_FALSE(HXPrivilegedReply::decoded(reply.encoded().chopped(1)));
}
