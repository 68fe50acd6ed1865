// The protected-folder rule as the root repair sees it: the console user's own
// folders are protected, root's are not, and with nobody at the console only the
// machine's folders are.

#include "tests/support/Sandbox.h"

#include <gtest/gtest.h>

namespace {

const QString kProgram = QStringLiteral(MENDWELL_TEST_PROGRAMS_DIR "/pathrule");

const QStringList kUserFolders{
    QStringLiteral("/Users/anna"),
    QStringLiteral("/Users/anna/Desktop"),
    QStringLiteral("/Users/anna/Documents"),
    QStringLiteral("/Users/anna/Library"),
    QStringLiteral("/Users/anna/Library/Preferences"),
    QStringLiteral("/Users/anna/Library/Caches"),
    QStringLiteral("/Users/anna/Library/Application Support"),
    QStringLiteral("/Users/anna/Applications"),
    QStringLiteral("/Users/anna/Applications/Utilities"),
};
const QStringList kLocalFolders{
    QStringLiteral("/Library"),        QStringLiteral("/Library/Preferences"),
    QStringLiteral("/Library/Caches"), QStringLiteral("/Applications"),
    QStringLiteral("/Users/Shared"),   QStringLiteral("/Volumes"),
    QStringLiteral("/System/Library"), QStringLiteral("/Library/Documentation"),
};
const QStringList kNeverProtected{
    QStringLiteral("/root/Library"),
    QStringLiteral("/root/Library/Preferences"),
    QStringLiteral("/Users/anna/Library/Preferences/com.adobe.Premiere.plist"),
    QStringLiteral("/Users/anna/Movies"),
};

QString answers(const QStringList &paths, const QString &exact, const QString &any)
{
    QString lines;
    for (const QString &path : paths)
        lines += path + QStringLiteral(" exact=") + exact + QStringLiteral(" any=") + any + QLatin1Char('\n');
    return lines;
}

}  // namespace

TEST(ProtectedFoldersAsRootTest, TheConsoleUsersFoldersAreProtectedAndOnlyWhileSheIsThere)
{
    SKIP_WITHOUT_SANDBOX();
    Sandbox box;
    const QString program = box.installTestProgram(QStringLiteral("pathrule"));
    const QStringList all = kUserFolders + kLocalFolders + kNeverProtected;

    ProcessResult run = box.runAsRoot(QStringList{program} + all);
    EXPECT_EQ(QString::fromUtf8(run.out),
              answers(kUserFolders, QStringLiteral("1"), QStringLiteral("1")) +
                  answers(kLocalFolders, QStringLiteral("1"), QStringLiteral("1")) +
                  answers(kNeverProtected, QStringLiteral("0"), QStringLiteral("0")))
        << run.err.toStdString();

    // Nobody at the console: no user's folders to protect, the machine's still are.
    run = box.runAsRoot(QStringList{program} + all, {QStringLiteral("SUDO_USER=")});
    EXPECT_EQ(QString::fromUtf8(run.out),
              answers(kUserFolders, QStringLiteral("0"), QStringLiteral("0")) +
                  answers(kLocalFolders, QStringLiteral("1"), QStringLiteral("1")) +
                  answers(kNeverProtected, QStringLiteral("0"), QStringLiteral("0")))
        << run.err.toStdString();
}
