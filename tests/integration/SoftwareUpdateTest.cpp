// The update launcher in the sandbox, as anna, with stand-in updaters
// (tests/programs/editorstandin.cpp) of chosen versions: installed in
// /Applications/Lanternfish and carried in Mendwell.app's Resources. Each records
// its starts, with its arguments, in a file of its own. /Library/Temp plays the
// shared /tmp (sticky, everyone's), where another user's updater waits at the
// name the carried copy once had.

#include "system/PropertyList.h"
#include "tests/support/Sandbox.h"
#include "tests/support/TestFiles.h"

#include <QDir>
#include <QFile>
#include <QRegularExpression>

#include <gtest/gtest.h>

#include <pwd.h>
#include <sys/stat.h>

namespace {

const QString kInstalled = QStringLiteral("/Applications/Lanternfish/Lanternfish Software Update.app");
const QString kEmbedded =
    QStringLiteral("/Applications/Mendwell.app/Contents/Resources/Lanternfish Software Update.app");
const QString kOldName = QStringLiteral("/Library/Temp/Lanternfish Software Update.app");
const QString kDriver = QStringLiteral("/Applications/Mendwell.app/Contents/MacOS/app-softwareupdate");
const QString kRuns = QStringLiteral("/Library/TestRuns");
// The other local user who plants things in the shared temporary folder.
const char *const kOtherUser = "bert";

// RUNS rounds as root of the quiet check and the menu command, while anna
// (tests/support/temp-race.sh) keeps her updater at the old name and tries every
// run's folder. The updaters record themselves; the menu's are waited for a
// bounded while.
const char kRaceDriver[] = R"sh(set -u
runs=$1 race=$2
driver=/Applications/Mendwell.app/Contents/MacOS/app-softwareupdate
out=/Library/TestRuns
setpriv --reuid=anna --regid=anna --init-groups -- env HOME=/Users/anna sh "$race" /Library/Temp \
    'Mendwell-*' "$out/hers.sh" "$out/hers.app" "/Library/Temp/Lanternfish Software Update.app" \
    1000000 300 "$out/stop" "$out/race" &
racer=$!
n=0
while [ $n -lt "$runs" ]; do
    TMPDIR=/Library/Temp "$driver" check >>"$out/driver.out" 2>&1
    TMPDIR=/Library/Temp "$driver" launch >>"$out/driver.out" 2>&1
    n=$((n + 1))
done
n=0
while [ "$(grep -c . "$out/carried.$(id -u anna)" 2>/dev/null)" != "$runs" ] && [ $n -lt 400 ]; do
    sleep 0.05
    n=$((n + 1))
done
touch "$out/stop"
wait "$racer"
)sh";

// An updater's program as a script: it records who ran it, with its arguments,
// in RECORD.UID (a file of each user's own: the sticky folder lets nobody else
// append to it), and takes a moment, so a racing user has its folder to try.
QByteArray updaterScript(const QString &record)
{
    return "#!/bin/sh\necho \"uid=$(id -u) $*\" >>" + record.toUtf8() + ".$(id -u)\nsleep 0.2\n";
}

class SoftwareUpdateTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        SKIP_WITHOUT_SANDBOX();
        ASSERT_TRUE(box.makeFolder(QStringLiteral("/Library/Temp"), false, 01777));
        ASSERT_EQ(box.installInBundle(QStringLiteral("app-softwareupdate")), kDriver);
        ASSERT_TRUE(box.makeFolder(QStringLiteral("/Users/anna/Library/Preferences"), true));
    }

    // An updater bundle of VERSION that records into /Users/anna/RECORD.record.
    void installUpdater(const QString &path, const QString &version, const QString &record,
                        bool annas = false)
    {
        ASSERT_TRUE(box.installStandInApplication(
            path, QStringLiteral("Updater"),
            QStringLiteral("<key>CFBundleVersion</key><string>%1</string>").arg(version).toUtf8(),
            "record-only", QStringLiteral("/Users/anna/") + record + QStringLiteral(".record"), annas));
    }

    ProcessResult drive(const QString &mode)
    {
        return box.runAsUser({kDriver, mode}, {QStringLiteral("TMPDIR=/Library/Temp")});
    }

    // A bundle at PATH of VERSION whose program is SCRIPT.
    void installScriptUpdater(const QString &path, int version, const QByteArray &script, bool annas)
    {
        const QByteArray info = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict>"
                                "<key>CFBundleExecutable</key><string>Updater</string>"
                                "<key>CFBundleVersion</key><string>" +
                                QByteArray::number(version) + "</string></dict></plist>\n";
        ASSERT_TRUE(box.writeFile(path + QStringLiteral("/Contents/Info.plist"), info, annas));
        ASSERT_TRUE(box.writeFile(path + QStringLiteral("/Contents/MacOS/Updater"), script, annas, 0755));
    }

    // The run folders left in the shared temporary folder.
    QStringList runFolders() const
    {
        return QDir(box.hostPath(QStringLiteral("/Library/Temp")))
            .entryList({QStringLiteral("Mendwell-*")}, QDir::AllEntries | QDir::System | QDir::Hidden);
    }

    // The updater is started detached: its record may come a little later.
    QStringList record(const QString &name, int lines = 0) const
    {
        return box.recordLines(QStringLiteral("/Users/anna/") + name + QStringLiteral(".record"), lines);
    }

    Sandbox box;
};

TEST_F(SoftwareUpdateTest, WithoutAnyUpdaterTheCheckSaysSo)
{
    const ProcessResult result = drive(QStringLiteral("check"));
    EXPECT_EQ(result.out, QByteArray("Unable to launch Software Update - updater bundle not found.\n"));
}

TEST_F(SoftwareUpdateTest, TheNewerCarriedUpdaterRunsFromAPrivateCopyNeverFromAnotherUsersAtTheOldName)
{
    if (getpwnam(kOtherUser) == nullptr)
        GTEST_SKIP() << "the account " << kOtherUser << " does not exist (scripts/setup-tests.sh makes it)";
    // A version counts by its leading integer: 15.1 is newer than 12.
    installUpdater(kInstalled, QStringLiteral("12"), QStringLiteral("installed"));
    installUpdater(kEmbedded, QStringLiteral("15.1"), QStringLiteral("embedded"));
    // The other user came first to the name the copy used to take.
    installUpdater(kOldName, QStringLiteral("3"), QStringLiteral("planted"));
    ASSERT_EQ(box.runAsRoot({QStringLiteral("chown"), QStringLiteral("-R"),
                             QStringLiteral("%1:%1").arg(QLatin1String(kOtherUser)), kOldName})
                  .exitCode,
              0);

    const QString path = QString::fromUtf8(drive(QStringLiteral("path")).out.trimmed());
    const QRegularExpressionMatch match =
        QRegularExpression(QStringLiteral("^/Library/Temp/(Mendwell-update\\.[A-Za-z0-9]{10})/"
                                          "Lanternfish Software Update\\.app$"))
            .match(path);
    EXPECT_TRUE(match.hasMatch()) << path.toStdString();
    if (match.hasMatch()) {
        const struct stat folder =
            disk::info(box.hostPath(QStringLiteral("/Library/Temp/") + match.captured(1)));
        ASSERT_TRUE(S_ISDIR(folder.st_mode));
        EXPECT_EQ(folder.st_uid, Sandbox::userId());
        EXPECT_EQ(folder.st_mode & 07777, 0700u);
        // That copy stays for the updater it was made for; the check's goes when it ends.
        EXPECT_EQ(runFolders(), QStringList{match.captured(1)});
    }
    EXPECT_TRUE(
        box.readFile(path + QStringLiteral("/Contents/Info.plist")).contains("<string>15.1</string>"));

    drive(QStringLiteral("check"));
    const QString launch = QStringLiteral("launch uid=%1 home=/Users/anna").arg(Sandbox::userId());
    EXPECT_EQ(record(QStringLiteral("embedded"), 1),
              QStringList{launch + QStringLiteral(" open=-checkpath open=/Applications/Mendwell.app")});
    EXPECT_EQ(runFolders().size(), 1) << runFolders().join(' ').toStdString();
    drive(QStringLiteral("menu"));
    EXPECT_EQ(record(QStringLiteral("embedded"), 2).value(1), launch);
    EXPECT_EQ(runFolders().size(), 2) << runFolders().join(' ').toStdString();
    EXPECT_TRUE(record(QStringLiteral("installed")).isEmpty());
    EXPECT_TRUE(record(QStringLiteral("planted")).isEmpty());
    // The installed copy is never replaced, nor is the other user's touched.
    EXPECT_TRUE(
        box.readFile(kInstalled + QStringLiteral("/Contents/Info.plist")).contains("<string>12</string>"));
    EXPECT_TRUE(
        box.readFile(kOldName + QStringLiteral("/Contents/Info.plist")).contains("<string>3</string>"));
}

// Root's runs: the check runs the updater as root, the menu hands it to anna.
// Whatever she keeps at the old name or tries on the runs' folders meanwhile,
// only the carried updater runs.
TEST_F(SoftwareUpdateTest, AsRootOnlyTheCarriedUpdaterRunsWhileAnotherUserRaces)
{
    constexpr int kRounds = 15;
    ASSERT_TRUE(box.makeFolder(kRuns, false, 01777));
    ASSERT_TRUE(box.makeFolder(QStringLiteral("/Library/Logs/Lanternfish")));
    installScriptUpdater(kEmbedded, 15, updaterScript(kRuns + QStringLiteral("/carried")), false);
    // Hers, version 99, to be planted at the old name, and her program for the folders.
    installScriptUpdater(kRuns + QStringLiteral("/hers.app"), 99,
                         updaterScript(kRuns + QStringLiteral("/hers")), true);
    ASSERT_TRUE(box.writeFile(kRuns + QStringLiteral("/hers.sh"),
                              updaterScript(kRuns + QStringLiteral("/hers")), true));
    ASSERT_TRUE(box.writeFile(kRuns + QStringLiteral("/driver.sh"), kRaceDriver));

    const ProcessResult raced =
        box.runAsRoot({QStringLiteral("sh"), kRuns + QStringLiteral("/driver.sh"), QString::number(kRounds),
                       QStringLiteral(MENDWELL_SOURCE_DIR "/tests/support/temp-race.sh")});
    ASSERT_EQ(raced.exitCode, 0) << raced.err.constData();

    const auto lines = [this](const QString &name) {
        return QString::fromUtf8(box.readFile(kRuns + QLatin1Char('/') + name))
            .split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    };
    const QString anna = QString::number(Sandbox::userId());
    EXPECT_EQ(lines(QStringLiteral("carried.0")),
              QStringList(kRounds, QStringLiteral("uid=0 -checkpath /Applications/Mendwell.app")));
    EXPECT_EQ(lines(QStringLiteral("carried.") + anna),
              QStringList(kRounds, QStringLiteral("uid=%1 ").arg(anna)));
    const QStringList hers = lines(QStringLiteral("hers.0")) + lines(QStringLiteral("hers.") + anna);
    const QRegularExpressionMatch figures =
        QRegularExpression(QStringLiteral("attempts=(\\d+) escapes=(\\d+)"))
            .match(QString::fromUtf8(box.readFile(kRuns + QStringLiteral("/race"))));
    ASSERT_TRUE(figures.hasMatch()) << box.readFile(kRuns + QStringLiteral("/driver.out")).constData();
    const int escapes = figures.captured(2).toInt() + static_cast<int>(hers.size());
    std::printf("[ figures ] %d root checks and %d menu starts; anna's attempts %s, escapes %d\n", kRounds,
                kRounds, qPrintable(figures.captured(1)), escapes);
    EXPECT_GT(figures.captured(1).toInt(), 0);
    EXPECT_EQ(escapes, 0) << hers.join('\n').toStdString();
    EXPECT_TRUE(box.exists(kOldName + QStringLiteral("/Contents/Info.plist")));
    // The checks' folders are gone; each menu start's stays for its updater.
    EXPECT_EQ(runFolders().size(), kRounds) << runFolders().join(' ').toStdString();
}

TEST_F(SoftwareUpdateTest, AnEqualCarriedUpdaterLeavesTheInstalledOneAndOnlyNoStopsTheStartupCheck)
{
    // 15.9 is 15 as well.
    installUpdater(kInstalled, QStringLiteral("15"), QStringLiteral("installed"));
    installUpdater(kEmbedded, QStringLiteral("15.9"), QStringLiteral("embedded"));
    EXPECT_EQ(drive(QStringLiteral("path")).out, kInstalled.toUtf8() + '\n');

    const QString global =
        box.hostPath(QStringLiteral("/Users/anna/Library/Preferences/com.lanternfish.global.plist"));
    const QString launch = QStringLiteral("launch uid=%1 home=/Users/anna").arg(Sandbox::userId());
    const QString check = launch + QStringLiteral(" open=-checkpath open=/Applications/Mendwell.app");
    ASSERT_TRUE(PropertyList::writeXmlFile(global, QVariantMap{{QStringLiteral("SUCheckAtStartup"), false}}));
    drive(QStringLiteral("startup"));
    EXPECT_TRUE(record(QStringLiteral("installed")).isEmpty());
    ASSERT_TRUE(PropertyList::writeXmlFile(
        global, QVariantMap{{QStringLiteral("SUCheckAtStartup"), QStringLiteral("NO")}}));
    drive(QStringLiteral("startup"));
    EXPECT_EQ(record(QStringLiteral("installed"), 1), QStringList{check});
    // The menu starts it as an ordinary application.
    drive(QStringLiteral("menu"));
    EXPECT_EQ(record(QStringLiteral("installed"), 2), (QStringList{check, launch}));
}

}  // namespace
