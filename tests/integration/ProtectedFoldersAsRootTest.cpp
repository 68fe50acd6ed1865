// The protected-folder rule as the root repair sees it: the console user's own
// folders are protected, root's are not, and with nobody at the console only the
// machine's folders are.

#include "tests/support/Sandbox.h"

#include <gtest/gtest.h>

using namespace Qt::Literals::StringLiterals;

namespace {

const QStringList kUserFolders{
    u"/Users/anna"_s,
    u"/Users/anna/Desktop"_s,
    u"/Users/anna/Documents"_s,
    u"/Users/anna/Library"_s,
    u"/Users/anna/Library/Preferences"_s,
    u"/Users/anna/Library/Caches"_s,
    u"/Users/anna/Library/Application Support"_s,
    u"/Users/anna/Applications"_s,
    u"/Users/anna/Applications/Utilities"_s,
};
const QStringList kLocalFolders{
    u"/Library"_s,        u"/Library/Preferences"_s,   u"/Library/Caches"_s,
    u"/Applications"_s,   u"/Users/Shared"_s,          u"/Volumes"_s,
    u"/System/Library"_s, u"/Library/Documentation"_s,
};
const QStringList kNeverProtected{
    u"/root/Library"_s,
    u"/root/Library/Preferences"_s,
    u"/Users/anna/Library/Preferences/com.adobe.Premiere.plist"_s,
    u"/Users/anna/Movies"_s,
};

// pathrule's lines for PATHS, each protected under both rules or under neither.
QString answers(const QStringList &paths, bool protectedPaths)
{
    QString lines;
    for (const QString &path : paths)
        lines += path + (protectedPaths ? u" exact=1 any=1\n"_s : u" exact=0 any=0\n"_s);
    return lines;
}

}  // namespace

TEST(ProtectedFoldersAsRootTest, TheConsoleUsersFoldersAreProtectedAndOnlyWhileSheIsThere)
{
    SKIP_WITHOUT_SANDBOX();
    Sandbox box;
    const QString program = box.installTestProgram(u"pathrule"_s);
    const QStringList all = kUserFolders + kLocalFolders + kNeverProtected;

    ProcessResult run = box.runAsRoot(QStringList{program} + all);
    EXPECT_EQ(QString::fromUtf8(run.out),
              answers(kUserFolders, true) + answers(kLocalFolders, true) + answers(kNeverProtected, false))
        << run.err.toStdString();

    // Nobody at the console: no user's folders to protect, the machine's still are.
    run = box.runAsRoot(QStringList{program} + all, {u"SUDO_USER="_s});
    EXPECT_EQ(QString::fromUtf8(run.out),
              answers(kUserFolders, false) + answers(kLocalFolders, true) + answers(kNeverProtected, false))
        << run.err.toStdString();
}
