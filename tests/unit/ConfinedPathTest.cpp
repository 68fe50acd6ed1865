#include "platform/ConfinedPath.h"
#include "system/HXPrivilegedRequest.h"

#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>

#include <sys/stat.h>

#include <unistd.h>

TEST(ConfinedPathTest, FollowsOnlyLinksRootMadeInFoldersOnlyRootChanges)
{
    // /bin is root's link to usr/bin on merged systems; a plain folder elsewhere.
    const auto shell = platform::ConfinedPath::open(QStringLiteral("/bin/sh"));
    ASSERT_TRUE(shell);
    EXPECT_EQ(shell->name(), QStringLiteral("sh"));
    EXPECT_TRUE(QFileInfo::exists(shell->childPath()));

    QTemporaryDir dir;
    ASSERT_TRUE(QDir().mkpath(dir.path() + QStringLiteral("/real/inner")));
    ASSERT_TRUE(QFile::link(dir.path() + QStringLiteral("/real"), dir.path() + QStringLiteral("/link")));
    if (geteuid() == 0) {
        // A link in a folder others may write to could be swapped at any time.
        ASSERT_EQ(::chmod(QFile::encodeName(dir.path()).constData(), 0777), 0);
        EXPECT_FALSE(platform::ConfinedPath::open(dir.path() + QStringLiteral("/link/inner")));
        ASSERT_EQ(::chmod(QFile::encodeName(dir.path()).constData(), 0700), 0);
    }
    QString error;
    EXPECT_FALSE(platform::ConfinedPath::open(dir.path() + QStringLiteral("/real/../link/inner"), &error));
    EXPECT_FALSE(error.isEmpty());
    EXPECT_FALSE(platform::ConfinedPath::open(QStringLiteral("relative/path")));

    // The last component is the item itself, never followed.
    const auto link = platform::ConfinedPath::open(dir.path() + QStringLiteral("/link"));
    ASSERT_TRUE(link);
    EXPECT_TRUE(link->exists());
    EXPECT_FALSE(link->isRealFolder());
    const auto folder = platform::ConfinedPath::open(dir.path() + QStringLiteral("/real"));
    ASSERT_TRUE(folder);
    EXPECT_TRUE(folder->isRealFolder());
    EXPECT_FALSE(platform::ConfinedPath::open(dir.path() + QStringLiteral("/missing/item")));
}

TEST(ConfinedPathTest, RequestsSurviveTheirEncodingAndRejectGarbage)
{
    HXPrivilegedRequest request;
    request.operation = HXPrivilegedOperation::Copy;
    request.wait = false;
    request.arguments = {QStringLiteral("/a b/\u00e9"), QStringLiteral("/c")};
    const auto decoded = HXPrivilegedRequest::decoded(request.encoded());
    ASSERT_TRUE(decoded);
    EXPECT_EQ(decoded->operation, HXPrivilegedOperation::Copy);
    EXPECT_FALSE(decoded->wait);
    EXPECT_EQ(decoded->arguments, request.arguments);
    EXPECT_FALSE(HXPrivilegedRequest::decoded("not a request"));
    QByteArray truncated = request.encoded();
    truncated.chop(3);
    EXPECT_FALSE(HXPrivilegedRequest::decoded(truncated));
}
