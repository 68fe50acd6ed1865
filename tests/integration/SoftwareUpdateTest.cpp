// The update launcher in the sandbox, as anna, with stand-in updaters
// (tests/programs/editorstandin.cpp) of chosen versions: installed in
// /Applications/Lanternfish and carried in Mendwell.app's Resources. Each records
// its starts, with its arguments, in a file of its own.

#include "system/PropertyList.h"
#include "tests/support/Sandbox.h"
#include "tests/support/TestFiles.h"

#include <QFile>

#include <gtest/gtest.h>

#include <sys/stat.h>

namespace {

const QString kInstalled = QStringLiteral("/Applications/Lanternfish/Lanternfish Software Update.app");
const QString kEmbedded =
    QStringLiteral("/Applications/Mendwell.app/Contents/Resources/Lanternfish Software Update.app");
const QString kTemporary = QStringLiteral("/Library/Temp/Lanternfish Software Update.app");
const QString kDriver = QStringLiteral("/Applications/Mendwell.app/Contents/MacOS/app-softwareupdate");

class SoftwareUpdateTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        SKIP_WITHOUT_SANDBOX();
        ASSERT_TRUE(box.makeFolder(QStringLiteral("/Library/Temp")));
        ::chmod(QFile::encodeName(box.hostPath(QStringLiteral("/Library/Temp"))).constData(), 01777);
        ASSERT_TRUE(QFile::copy(QStringLiteral(MENDWELL_TEST_PROGRAMS_DIR "/app-softwareupdate"),
                                box.hostPath(kDriver)));
        ::chmod(QFile::encodeName(box.hostPath(kDriver)).constData(), 0755);
        ASSERT_TRUE(box.makeFolder(QStringLiteral("/Users/anna/Library/Preferences"), true));
    }

    // An updater bundle of VERSION that records into /Users/anna/RECORD.record.
    void installUpdater(const QString &path, int version, const QString &record, bool annas = false)
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

TEST_F(SoftwareUpdateTest, TheNewerCarriedUpdaterRunsFromAFreshTemporaryCopy)
{
    installUpdater(kInstalled, 12, QStringLiteral("installed"));
    installUpdater(kEmbedded, 15, QStringLiteral("embedded"));
    installUpdater(kTemporary, 3, QStringLiteral("stale"), true);  // anna's copy from an earlier run
    EXPECT_EQ(drive(QStringLiteral("path")).out, kTemporary.toUtf8() + '\n');
    EXPECT_TRUE(
        box.readFile(kTemporary + QStringLiteral("/Contents/Info.plist")).contains("<string>15</string>"));

    drive(QStringLiteral("check"));
    const QString launch = QStringLiteral("launch uid=%1 home=/Users/anna").arg(Sandbox::userId());
    EXPECT_EQ(record(QStringLiteral("embedded"), 1),
              QStringList{launch + QStringLiteral(" open=-checkpath open=/Applications/Mendwell.app")});
    EXPECT_TRUE(record(QStringLiteral("installed")).isEmpty());
    EXPECT_TRUE(record(QStringLiteral("stale")).isEmpty());
    // The installed copy is never replaced.
    EXPECT_TRUE(
        box.readFile(kInstalled + QStringLiteral("/Contents/Info.plist")).contains("<string>12</string>"));
}

TEST_F(SoftwareUpdateTest, AnEqualCarriedUpdaterLeavesTheInstalledOneAndOnlyNoStopsTheStartupCheck)
{
    installUpdater(kInstalled, 15, QStringLiteral("installed"));
    installUpdater(kEmbedded, 15, QStringLiteral("embedded"));
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
