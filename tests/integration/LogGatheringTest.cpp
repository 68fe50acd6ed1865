// Log gathering in the sandbox: what goes into the archive on anna's Desktop and
// under which names, as unzip lists it. /Library/Temp plays the shared /tmp
// (sticky, everyone's): what another user leaves or links at the staging folder's
// old name there must neither stop a gathering nor receive its copies.

#include "tests/support/Sandbox.h"
#include "tests/support/TestFiles.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>

#include <gtest/gtest.h>

#include <pwd.h>
#include <unistd.h>

namespace {

const QString kLogs = QStringLiteral("/Users/anna/Library/Logs");
const QString kRuns = QStringLiteral("/Library/TestRuns");
const QString kOldName = QStringLiteral("/Library/Temp/HX_App_Logs");
// The other local user, whose home is /Users/bert.
const char *const kOtherUser = "bert";

// RUNS gatherings as root while anna (tests/support/temp-race.sh) keeps a link
// to a folder of hers at the old name and tries every run's folder.
const char kRaceDriver[] = R"sh(set -u
runs=$1 race=$2 gather=$3
out=/Library/TestRuns
setpriv --reuid=anna --regid=anna --init-groups -- env HOME=/Users/anna sh "$race" /Library/Temp \
    'Mendwell-*' "$out/hers.sh" "$out/link" /Library/Temp/HX_App_Logs 1000000 300 "$out/stop" "$out/race" &
racer=$!
n=0
while [ $n -lt "$runs" ]; do
    TMPDIR=/Library/Temp "$gather" Mendwell >>"$out/answers" 2>>"$out/driver.err"
    n=$((n + 1))
done
touch "$out/stop"
wait "$racer"
)sh";

class LogGatheringTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        SKIP_WITHOUT_SANDBOX();
        ASSERT_TRUE(box.makeFolder(QStringLiteral("/Users/anna/Desktop"), true));
        ASSERT_TRUE(box.makeFolder(QStringLiteral("/Library/Temp"), false, 01777));
        program = box.installTestProgram(QStringLiteral("app-gatherlogs"));
    }

    QString gather(const QStringList &arguments)
    {
        return QString::fromUtf8(
            box.runAsUser(QStringList{program} + arguments, {QStringLiteral("TMPDIR=/Library/Temp")})
                .out.trimmed());
    }

    // The same as USER (not anna), in the home the account names.
    QString gatherAs(const char *user, const QStringList &arguments)
    {
        const QString name = QLatin1String(user);
        return QString::fromUtf8(
            box.runAsRoot(QStringList{QStringLiteral("setpriv"), QStringLiteral("--reuid=") + name,
                                      QStringLiteral("--regid=") + name, QStringLiteral("--init-groups"),
                                      QStringLiteral("--"), QStringLiteral("env"), QStringLiteral("-u"),
                                      QStringLiteral("SUDO_USER"), QStringLiteral("-u"),
                                      QStringLiteral("XDG_RUNTIME_DIR"),
                                      QStringLiteral("HOME=/Users/") + name, QStringLiteral("USER=") + name,
                                      QStringLiteral("LOGNAME=") + name,
                                      QStringLiteral("TMPDIR=/Library/Temp"), program} +
                          arguments)
                .out.trimmed());
    }

    // The run folders left in the shared temporary folder.
    QStringList runFolders() const
    {
        return QDir(box.hostPath(QStringLiteral("/Library/Temp")))
            .entryList({QStringLiteral("Mendwell-*")}, QDir::AllEntries | QDir::System | QDir::Hidden);
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
    // Staged in a run folder of its own, which went with the run.
    EXPECT_TRUE(runFolders().isEmpty()) << runFolders().join(' ').toStdString();
    EXPECT_FALSE(box.exists(kOldName));

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

TEST_F(LogGatheringTest, TwoUsersGatherOneAfterTheOtherWhateverTheOtherLeftAtTheOldName)
{
    if (getpwnam(kOtherUser) == nullptr)
        GTEST_SKIP() << "the account " << kOtherUser << " does not exist (scripts/setup-tests.sh makes it)";
    ASSERT_TRUE(box.writeFile(kLogs + QStringLiteral("/Lanternfish/Mendwell.1.log"), "anna's", true));
    ASSERT_TRUE(
        box.writeFile(QStringLiteral("/Users/bert/Library/Logs/Lanternfish/Mendwell.1.log"), "bert's"));
    ASSERT_TRUE(box.makeFolder(QStringLiteral("/Users/bert/Desktop")));
    ASSERT_EQ(box.runAsRoot({QStringLiteral("chown"), QStringLiteral("-R"), QStringLiteral("bert:bert"),
                             QStringLiteral("/Users/bert")})
                  .exitCode,
              0);

    // bert's staging folder at the old name, as a gathering cut short would leave it.
    ASSERT_TRUE(box.writeFile(kOldName + QStringLiteral("/Users/bert/notes.txt"), "bert's"));
    ASSERT_EQ(
        box.runAsRoot({QStringLiteral("chown"), QStringLiteral("-R"), QStringLiteral("bert:bert"), kOldName})
            .exitCode,
        0);
    EXPECT_EQ(gather({QStringLiteral("Mendwell")}), QStringLiteral("yes"));
    EXPECT_EQ(gatherAs(kOtherUser, {QStringLiteral("Mendwell")}), QStringLiteral("yes"));
    EXPECT_EQ(gather({QStringLiteral("Mendwell")}), QStringLiteral("yes"));
    EXPECT_EQ(entries(QStringLiteral("/Users/anna/Desktop/Mendwell Logs.zip")),
              QStringList{QStringLiteral("HX_App_Logs/Users/anna/Library/Logs/Lanternfish/Mendwell.1.log")});
    EXPECT_EQ(entries(QStringLiteral("/Users/bert/Desktop/Mendwell Logs.zip")),
              QStringList{QStringLiteral("HX_App_Logs/Users/bert/Library/Logs/Lanternfish/Mendwell.1.log")});
    EXPECT_TRUE(box.exists(kOldName + QStringLiteral("/Users/bert/notes.txt")));
    EXPECT_TRUE(runFolders().isEmpty()) << runFolders().join(' ').toStdString();
}

// As root (the console user's logs, her Desktop) while she keeps a link at the
// old name and tries every run's folder: each gathering succeeds and nothing
// lands in the folder her link names.
TEST_F(LogGatheringTest, AsRootNothingGoesThroughAnotherUsersLinkWhileSheRaces)
{
    constexpr int kRounds = 15;
    ASSERT_TRUE(box.makeFolder(kRuns, false, 01777));
    ASSERT_TRUE(box.makeFolder(QStringLiteral("/Library/Logs/Lanternfish")));
    // Large enough that a run's folder is there a while.
    ASSERT_TRUE(box.writeFile(kLogs + QStringLiteral("/Lanternfish/Mendwell.1.log"),
                              QByteArray(4 * 1024 * 1024, 'x'), true));
    ASSERT_TRUE(box.makeFolder(QStringLiteral("/Users/anna/caught"), true));
    const QByteArray link = QFile::encodeName(box.hostPath(kRuns + QStringLiteral("/link")));
    ASSERT_EQ(::symlink("/Users/anna/caught", link.constData()), 0);
    ASSERT_EQ(::lchown(link.constData(), Sandbox::userId(), Sandbox::userGroupId()), 0);
    ASSERT_TRUE(
        box.writeFile(kRuns + QStringLiteral("/hers.sh"), "#!/bin/sh\nid >>/Users/anna/caught/ran\n", true));
    ASSERT_TRUE(box.writeFile(kRuns + QStringLiteral("/driver.sh"), kRaceDriver));

    const ProcessResult raced =
        box.runAsRoot({QStringLiteral("sh"), kRuns + QStringLiteral("/driver.sh"), QString::number(kRounds),
                       QStringLiteral(MENDWELL_SOURCE_DIR "/tests/support/temp-race.sh"), program});
    ASSERT_EQ(raced.exitCode, 0) << raced.err.constData();

    const QStringList answers =
        QString::fromUtf8(box.readFile(kRuns + QStringLiteral("/answers"))).split('\n', Qt::SkipEmptyParts);
    EXPECT_EQ(answers, QStringList(kRounds, QStringLiteral("yes")))
        << box.readFile(kRuns + QStringLiteral("/driver.err")).constData();
    const QRegularExpressionMatch figures =
        QRegularExpression(QStringLiteral("attempts=(\\d+) escapes=(\\d+)"))
            .match(QString::fromUtf8(box.readFile(kRuns + QStringLiteral("/race"))));
    ASSERT_TRUE(figures.hasMatch());
    const QStringList caught = QDir(box.hostPath(QStringLiteral("/Users/anna/caught")))
                                   .entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden);
    const int escapes = figures.captured(2).toInt() + static_cast<int>(caught.size());
    std::printf("[ figures ] %d root gatherings; anna's attempts %s, escapes %d\n", kRounds,
                qPrintable(figures.captured(1)), escapes);
    EXPECT_GT(figures.captured(1).toInt(), 0);
    EXPECT_EQ(escapes, 0) << caught.join(' ').toStdString();
    EXPECT_TRUE(QFileInfo(box.hostPath(kOldName)).isSymLink());
    EXPECT_TRUE(runFolders().isEmpty()) << runFolders().join(' ').toStdString();
    EXPECT_EQ(entries(QStringLiteral("/Users/anna/Desktop/Mendwell Logs.zip")),
              QStringList{QStringLiteral("HX_App_Logs/Users/anna/Library/Logs/Lanternfish/Mendwell.1.log")});
}

}  // namespace
