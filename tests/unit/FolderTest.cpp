// The descriptor layer root works through, and the checks of the typed requests.

#include "platform/Folder.h"
#include "system/HXPrivilegedRequest.h"

#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr uid_t kOtherUid = 1001;

class FolderTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(m_dir.isValid());
        root = m_dir.path();
        ASSERT_TRUE(QDir().mkpath(root + QStringLiteral("/real/inner")));
        write(QStringLiteral("real/inner/file.txt"), "contents", 0640);
        ASSERT_TRUE(QFile::link(root + QStringLiteral("/real"), root + QStringLiteral("/link")));
    }

    void write(const QString &relative, const QByteArray &contents, mode_t mode) const
    {
        QFile file(root + QLatin1Char('/') + relative);
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(contents);
        file.close();
        ::chmod(QFile::encodeName(file.fileName()).constData(), mode);
    }

    struct stat lookAt(const QString &relative) const
    {
        struct stat info {};
        ::lstat(QFile::encodeName(root + QLatin1Char('/') + relative).constData(), &info);
        return info;
    }

    QTemporaryDir m_dir;
    QString root;
};

}  // namespace

TEST_F(FolderTest, FollowsOnlyLinksThatNobodyElseCanHaveMade)
{
    // /bin is root's link to usr/bin on merged systems, a plain folder elsewhere.
    ASSERT_TRUE(platform::Item::open(QStringLiteral("/bin/sh")));
    EXPECT_TRUE(platform::Item::open(QStringLiteral("/bin/sh"))->exists());

    // Our own link in our own folder leads on.
    EXPECT_TRUE(platform::Folder::open(root + QStringLiteral("/link/inner")));
    // The last component is the item itself, never followed.
    const auto link = platform::Item::open(root + QStringLiteral("/link"));
    ASSERT_TRUE(link);
    EXPECT_TRUE(S_ISLNK(link->info()->st_mode));

    // "..": a plain user's path climbs as the system climbs; root's walk refuses it.
    int error = 0;
    EXPECT_EQ(platform::Folder::open(root + QStringLiteral("/real/../link/inner"), &error).has_value(),
              geteuid() != 0);
    EXPECT_FALSE(platform::Item::open(QStringLiteral("/")));
    EXPECT_FALSE(platform::Item::open(root + QStringLiteral("/missing/item"), &error));
    EXPECT_EQ(error, ENOENT);
    // "." and doubled or trailing slashes are the same path.
    EXPECT_EQ(platform::absoluteItemPath(QStringLiteral("/Users//anna/./Library/.")),
              QStringLiteral("/Users/anna/Library"));

    if (geteuid() != 0)
        GTEST_SKIP() << "the rest changes owners";
    // A link another user made, or one in a folder others may write to, stops the walk.
    ASSERT_EQ(::lchown(QFile::encodeName(root + QStringLiteral("/link")).constData(), kOtherUid, kOtherUid),
              0);
    EXPECT_FALSE(platform::Folder::open(root + QStringLiteral("/link/inner"), &error));
    EXPECT_EQ(error, ELOOP);
    ASSERT_EQ(::lchown(QFile::encodeName(root + QStringLiteral("/link")).constData(), 0, 0), 0);
    ASSERT_EQ(::chmod(QFile::encodeName(root).constData(), 0777), 0);
    EXPECT_FALSE(platform::Folder::open(root + QStringLiteral("/link/inner")));
    ASSERT_EQ(::chmod(QFile::encodeName(root).constData(), 01777), 0);  // sticky: nobody replaces it
    EXPECT_TRUE(platform::Folder::open(root + QStringLiteral("/link/inner")));
}

TEST_F(FolderTest, CopiesTreesWithLinksModesAndOwnersAndRemovesThemWithoutFollowing)
{
    ASSERT_TRUE(QFile::link(QStringLiteral("/etc"), root + QStringLiteral("/real/inner/etc")));
    if (geteuid() == 0) {
        ASSERT_EQ(::lchown(QFile::encodeName(root + QStringLiteral("/real/inner/file.txt")).constData(),
                           kOtherUid, kOtherUid),
                  0);
    }
    const auto top = platform::Folder::open(root);
    ASSERT_TRUE(top);
    ASSERT_EQ(top->copyTree(QStringLiteral("real"), *top, QStringLiteral("copy")), 0);
    EXPECT_EQ(top->copyTree(QStringLiteral("real"), *top, QStringLiteral("copy")), EEXIST);

    const struct stat copied = lookAt(QStringLiteral("copy/inner/file.txt"));
    EXPECT_EQ(copied.st_mode & 07777, 0640u);
    EXPECT_EQ(copied.st_uid, lookAt(QStringLiteral("real/inner/file.txt")).st_uid);
    EXPECT_EQ(lookAt(QStringLiteral("copy/inner")).st_mode & 07777,
              lookAt(QStringLiteral("real/inner")).st_mode & 07777);
    EXPECT_TRUE(S_ISLNK(lookAt(QStringLiteral("copy/inner/etc")).st_mode));

    // Removing the copy removes the link, not what it points to.
    ASSERT_EQ(top->removeTree(QStringLiteral("copy")), 0);
    EXPECT_FALSE(QFile::exists(root + QStringLiteral("/copy")));
    EXPECT_TRUE(QFile::exists(QStringLiteral("/etc/passwd")));
    // A rename never takes the place of what is there unless asked to.
    ASSERT_TRUE(QDir().mkpath(root + QStringLiteral("/other")));
    EXPECT_EQ(top->rename(QStringLiteral("real"), *top, QStringLiteral("other"), false), EEXIST);
    EXPECT_EQ(top->rename(QStringLiteral("real"), *top, QStringLiteral("other"), true), 0);
    EXPECT_TRUE(QFile::exists(root + QStringLiteral("/other/inner/file.txt")));
    // A new file never goes through a link in its place.
    EXPECT_LT(top->createFile(QStringLiteral("link"), 0600), 0);
    EXPECT_LT(top->createFile(QStringLiteral("../escape"), 0600), 0);
}

TEST_F(FolderTest, RootChangesNoFileWithMoreThanOneName)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "the rule is root's";
    write(QStringLiteral("single"), "x", 0600);
    write(QStringLiteral("shared"), "x", 0600);
    ASSERT_EQ(::link(QFile::encodeName(root + QStringLiteral("/shared")).constData(),
                     QFile::encodeName(root + QStringLiteral("/real/elsewhere")).constData()),
              0);
    const auto top = platform::Folder::open(root);
    ASSERT_TRUE(top);
    EXPECT_EQ(top->setMode(QStringLiteral("shared"), 0666), EMLINK);
    EXPECT_EQ(top->setOwner(QStringLiteral("shared"), kOtherUid, kOtherUid), EMLINK);
    EXPECT_EQ(lookAt(QStringLiteral("shared")).st_mode & 07777, 0600u);
    EXPECT_EQ(lookAt(QStringLiteral("shared")).st_uid, 0u);
    EXPECT_EQ(top->setMode(QStringLiteral("single"), 0644), 0);
    EXPECT_EQ(top->setOwner(QStringLiteral("single"), kOtherUid, kOtherUid), 0);
    EXPECT_EQ(lookAt(QStringLiteral("single")).st_mode & 07777, 0644u);
    EXPECT_EQ(lookAt(QStringLiteral("single")).st_uid, kOtherUid);
}

TEST(PrivilegedRequestTest, OnlyWellFormedRequestsOfTheKnownKindsDecode)
{
    HXPrivilegedRequest request;
    request.operation = HXPrivilegedOperation::Copy;
    request.arguments = {QStringLiteral("/a b/\u00e9"), QStringLiteral("/c")};
    const auto decoded = HXPrivilegedRequest::decoded(request.encoded());
    ASSERT_TRUE(decoded);
    EXPECT_EQ(decoded->operation, HXPrivilegedOperation::Copy);
    EXPECT_EQ(decoded->arguments, request.arguments);

    auto refused = [](HXPrivilegedOperation operation, const QStringList &arguments) {
        HXPrivilegedRequest made;
        made.operation = operation;
        made.arguments = arguments;
        return !HXPrivilegedRequest::decoded(made.encoded());
    };
    EXPECT_TRUE(refused(HXPrivilegedOperation::Remove, {QStringLiteral("relative")}));
    EXPECT_TRUE(refused(HXPrivilegedOperation::Remove, {QStringLiteral("/a"), QStringLiteral("/b")}));
    EXPECT_TRUE(refused(HXPrivilegedOperation::Trash, {QStringLiteral("/a"), QStringLiteral("../b")}));
    EXPECT_TRUE(refused(HXPrivilegedOperation::RunHelper, {QStringLiteral("/bin/sh"), QStringLiteral("-c")}));
    EXPECT_TRUE(refused(HXPrivilegedOperation::RunHelper, {QStringLiteral("../../bin/sh")}));
    EXPECT_FALSE(refused(HXPrivilegedOperation::RunHelper, {QStringLiteral("killtool")}));
    // The machine's password requirement: a boolean alone, never a file to write.
    EXPECT_FALSE(refused(HXPrivilegedOperation::RequireAdminPassword, {QStringLiteral("0")}));
    EXPECT_TRUE(refused(HXPrivilegedOperation::RequireAdminPassword, {QStringLiteral("/etc/shadow")}));
    EXPECT_TRUE(
        refused(HXPrivilegedOperation::RequireAdminPassword, {QStringLiteral("1"), QStringLiteral("/a")}));

    EXPECT_FALSE(HXPrivilegedRequest::decoded("not a request"));
    QByteArray truncated = request.encoded();
    truncated.chop(3);
    EXPECT_FALSE(HXPrivilegedRequest::decoded(truncated));
    QByteArray unknown = request.encoded();
    unknown[7] = 42;  // the operation's low byte
    EXPECT_FALSE(HXPrivilegedRequest::decoded(unknown));

    // Output is handed back only by a helper tool that is waited for.
    HXPrivilegedRequest capture;
    capture.operation = HXPrivilegedOperation::RunHelper;
    capture.arguments = {QStringLiteral("permissiontool")};
    capture.captureOutput = true;
    const auto captured = HXPrivilegedRequest::decoded(capture.encoded());
    ASSERT_TRUE(captured);
    EXPECT_TRUE(captured->captureOutput && captured->wait);
    capture.wait = false;
    EXPECT_FALSE(HXPrivilegedRequest::decoded(capture.encoded()));
    request.captureOutput = true;
    EXPECT_FALSE(HXPrivilegedRequest::decoded(request.encoded()));
    QByteArray flags = capture.encoded();
    flags[11] = 4;  // a flag no client sends
    EXPECT_FALSE(HXPrivilegedRequest::decoded(flags));
}

TEST(PrivilegedRequestTest, RepliesCarryTheirPathsAndOutputWhole)
{
    const HXPrivilegedReply reply{-60031, QStringLiteral("/Users/anna/.local/share/Trash/files/\u00e9 1"),
                                  QStringLiteral("/i"), QByteArray("a\0b\n", 4)};
    const std::optional<HXPrivilegedReply> decoded = HXPrivilegedReply::decoded(reply.encoded());
    ASSERT_TRUE(decoded);
    EXPECT_EQ(decoded->status, -60031);
    EXPECT_EQ(decoded->trashedPath, reply.trashedPath);
    EXPECT_EQ(decoded->infoPath, reply.infoPath);
    EXPECT_EQ(decoded->output, reply.output);
    QByteArray longer = reply.encoded();
    longer.append('x');
    EXPECT_FALSE(HXPrivilegedReply::decoded(longer));
    EXPECT_FALSE(HXPrivilegedReply::decoded(reply.encoded().chopped(1)));
}
