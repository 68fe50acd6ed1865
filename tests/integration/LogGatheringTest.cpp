// Log gathering as anna in the sandbox: what goes into the archive on her Desktop
// and under which names, as unzip lists it.

#include "tests/support/Sandbox.h"
#include "tests/support/TestFiles.h"

#include <QDir>
#include <QFile>
#include <QRegularExpression>

#include <gtest/gtest.h>

#include <unistd.h>

namespace {

const QString kLogs = QStringLiteral("/Users/anna/Library/Logs");

class LogGatheringTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        SKIP_WITHOUT_SANDBOX();
        ASSERT_TRUE(box.makeFolder(QStringLiteral("/Users/anna/Desktop"), true));
        ASSERT_TRUE(box.makeFolder(QStringLiteral("/Library/Temp")));
        ::chmod(QFile::encodeName(box.hostPath(QStringLiteral("/Library/Temp"))).constData(), 01777);
        program = box.installTestProgram(QStringLiteral("app-gatherlogs"));
    }

    QString gather(const QStringList &arguments)
    {
        return QString::fromUtf8(
            box.runAsUser(QStringList{program} + arguments, {QStringLiteral("TMPDIR=/Library/Temp")})
                .out.trimmed());
    }

    // The archive's entries, sorted, as unzip lists them.
    QStringList entries(const QString &archive) const
    {
        const ProcessResult listed =
            runProcess({QStringLiteral("unzip"), QStringLiteral("-Z1"), box.hostPath(archive)});
        QStringList names = QString::fromUtf8(listed.out).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
        names.removeIf([](const QString &name) { return name.endsWith(QLatin1Char('/')); });
        std::sort(names.begin(), names.end());
        return names;
    }

    Sandbox box;
    QString program;
};

TEST_F(LogGatheringTest, LogsReportsAndPreferencesGoInUnderTheirFullPathsAndASecondArchiveGetsAStamp)
{
    for (const char *path :
         {"/Lanternfish/Mendwell.1.log", "/Lanternfish/Mendwell.task.1.log", "/Lanternfish/Other.1.log",
          "/Lanternfish/mendwell.2.log", "/archive/old.log", "/DiagnosticReports/Mendwell_2026.crash",
          "/DiagnosticReports/Mendwell_2026.ips", "/CrashReporter/MendwellHelper_1.crash"})
        ASSERT_TRUE(box.writeFile(kLogs + QLatin1String(path), QByteArray("from ") + path, true));
    // A log that is a link with a relative target is archived as its target's text.
    ASSERT_EQ(::symlink("../archive/old.log",
                        QFile::encodeName(box.hostPath(kLogs + QStringLiteral("/Lanternfish/Mendwell.3.log")))
                            .constData()),
              0);
    ASSERT_TRUE(box.writeFile(
        QStringLiteral("/Users/anna/Library/Preferences/com.lanternfish.Mendwell.plist"), "<plist/>", true));
    ASSERT_TRUE(
        box.writeFile(QStringLiteral("/Users/anna/Library/Preferences/com.lanternfish.mendwellhelper.plist"),
                      "<plist/>", true));
    ASSERT_TRUE(box.writeFile(QStringLiteral("/Library/Logs/Lanternfish/Mendwell.task.1.log"), "machine"));
    ASSERT_TRUE(box.writeFile(QStringLiteral("/Users/anna/notes.txt"), "notes", true));

    ASSERT_EQ(gather({QStringLiteral("Mendwell"), QStringLiteral("Mendwell Helper"), QStringLiteral("--add"),
                      QStringLiteral("/Users/anna/notes.txt")}),
              QStringLiteral("yes"));
    const QString first = QStringLiteral("/Users/anna/Desktop/Mendwell Logs.zip");
    EXPECT_EQ(
        entries(first),
        (QStringList{
            QStringLiteral("HX_App_Logs/Library/Logs/Lanternfish/Mendwell.task.1.log"),
            QStringLiteral("HX_App_Logs/Users/anna/Library/Logs/DiagnosticReports/Mendwell_2026.crash"),
            QStringLiteral("HX_App_Logs/Users/anna/Library/Logs/Lanternfish/Mendwell.1.log"),
            QStringLiteral("HX_App_Logs/Users/anna/Library/Logs/Lanternfish/Mendwell.3.log"),
            QStringLiteral("HX_App_Logs/Users/anna/Library/Logs/Lanternfish/Mendwell.task.1.log"),
            QStringLiteral("HX_App_Logs/Users/anna/Library/Preferences/com.lanternfish.Mendwell.plist"),
            QStringLiteral("HX_App_Logs/Users/anna/Library/Preferences/com.lanternfish.mendwellhelper.plist"),
            QStringLiteral("HX_App_Logs/Users/anna/notes.txt"),
        }));
    const ProcessResult linked =
        runProcess({QStringLiteral("unzip"), QStringLiteral("-p"), box.hostPath(first),
                    QStringLiteral("HX_App_Logs/Users/anna/Library/Logs/Lanternfish/Mendwell.3.log")});
    EXPECT_EQ(linked.out, QByteArray("from /archive/old.log"));
    EXPECT_FALSE(box.exists(QStringLiteral("/Library/Temp/HX_App_Logs")));

    ASSERT_EQ(gather({QStringLiteral("Mendwell")}), QStringLiteral("yes"));
    const QStringList desktop =
        QDir(box.hostPath(QStringLiteral("/Users/anna/Desktop"))).entryList(QDir::Files);
    ASSERT_EQ(desktop.size(), 2) << desktop.join(' ').toStdString();
    EXPECT_TRUE(desktop.filter(QRegularExpression(QStringLiteral("^Mendwell Logs_\\d{14}\\.zip$"))).size() ==
                1)
        << desktop.join(' ').toStdString();
}

TEST_F(LogGatheringTest, AdditionalFilesAloneMakeAnArchiveAndNothingAtAllMakesNone)
{
    EXPECT_EQ(gather({QStringLiteral("Mendwell")}), QStringLiteral("no"));
    EXPECT_TRUE(QDir(box.hostPath(QStringLiteral("/Users/anna/Desktop"))).isEmpty());
    ASSERT_TRUE(box.writeFile(QStringLiteral("/Users/anna/notes.txt"), "notes", true));
    EXPECT_EQ(gather({QStringLiteral("Mendwell"), QStringLiteral("--add"),
                      QStringLiteral("/Users/anna/notes.txt")}),
              QStringLiteral("yes"));
    EXPECT_EQ(entries(QStringLiteral("/Users/anna/Desktop/Mendwell Logs.zip")),
              QStringList{QStringLiteral("HX_App_Logs/Users/anna/notes.txt")});
}

}  // namespace
