// Crash detection as users meet it: a command-line repair in the sandbox (as root
// for console user anna) dies of SIGSEGV in the middle of its work, leaves its own
// crash report in anna's Logs/DiagnosticReports, and the next run hands that
// report to the bug reporter, a stand-in bundle (tests/programs/editorstandin.cpp)
// in Mendwell.app's Resources that records what it was asked to open.

#include "system/PropertyList.h"
#include "tests/support/Sandbox.h"
#include "tests/support/TestFiles.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>
#include <QThread>

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <sys/stat.h>

namespace {

const QString kReports = QStringLiteral("/Users/anna/Library/Logs/DiagnosticReports");
const QString kBugReporter = QStringLiteral("/Applications/Mendwell.app/Contents/Resources/Bug Reporter.app");
const QString kRecord = QStringLiteral("/Users/anna/bugreporter.record");
const QString kLog = QStringLiteral("/Library/Logs/Lanternfish/Mendwell.task.1.log");

// Starts a repair, and once it is ending the background processes (its two-second
// pause), sends its main thread SIGSEGV. Prints the repair's exit status.
const char kCrashScript[] = R"sh(set -u
rm -f /Library/Logs/Lanternfish/Mendwell.task.1.log
/Applications/Mendwell.app/Contents/MacOS/Mendwell -repair -silent 2>/dev/null &
pid=$!
n=0
until grep -q 'Stopping processes' /Library/Logs/Lanternfish/Mendwell.task.1.log 2>/dev/null; do
    sleep 0.01; n=$((n + 1)); [ $n -gt 3000 ] && break
done
/Applications/TestPrograms/mainthreadkill $pid 11
wait $pid
echo "status=$?"
)sh";

class CrashReportTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        SKIP_WITHOUT_SANDBOX();
        ASSERT_TRUE(box.makeFolder(QStringLiteral("/Library/Logs/Lanternfish")));
        ASSERT_TRUE(box.writeFile(QStringLiteral("/Applications/TestPrograms/crash.sh"), kCrashScript));
        box.installTestProgram(QStringLiteral("mainthreadkill"));
        // The bug reporter, bundled where the bundle's own copy goes.
        ASSERT_TRUE(box.installStandInApplication(
            kBugReporter, QStringLiteral("Bug Reporter"),
            "<key>CFBundleIdentifier</key><string>com.lanternfish.BugReporter</string>", "record-only",
            kRecord));
        ASSERT_TRUE(box.makeFolder(QStringLiteral("/Users/anna/Library/Preferences"), true));
    }

    // Crashes one repair; the path of the report it left.
    QString crashARepair()
    {
        const QStringList before = reports();
        const ProcessResult crashed =
            box.runAsRoot({QStringLiteral("sh"), QStringLiteral("/Applications/TestPrograms/crash.sh")});
        EXPECT_EQ(crashed.out.trimmed(), QByteArray("status=139")) << crashed.err.constData();
        return newReport(before);
    }

    QStringList reports() const { return QDir(box.hostPath(kReports)).entryList(QDir::Files); }

    // The name of the one report added since BEFORE.
    QString newReport(const QStringList &before) const
    {
        QStringList added = reports();
        for (const QString &old : before)
            added.removeAll(old);
        EXPECT_EQ(added.size(), 1) << added.join(' ').toStdString();
        return added.value(0);
    }

    // Runs ARGUMENTS as root, expecting it to die of SIGNAL; the report the run
    // left, which is then removed (a second crash in the same second would have
    // the same name).
    QString crashReportOf(const QStringList &arguments, int signal)
    {
        const QStringList before = reports();
        const ProcessResult crashed = box.runAsRoot(arguments);
        EXPECT_EQ(crashed.exitCode, 128 + signal) << crashed.err.constData();
        const QString path = kReports + QLatin1Char('/') + newReport(before);
        const QString report = QString::fromUtf8(box.readFile(path));
        QFile::remove(box.hostPath(path));
        return report;
    }

    // One repair run to its end; the lines its task log holds.
    QString repairLog()
    {
        box.runAsRoot({QStringLiteral("Mendwell"), QStringLiteral("-repair"), QStringLiteral("-silent")});
        return QString::fromUtf8(box.readFile(kLog));
    }

    // The bug reporter is started detached: its record may come a little later.
    QStringList bugReporterRecord(int lines = 0) const { return box.recordLines(kRecord, lines); }

    Sandbox box;
};

TEST_F(CrashReportTest, ACrashLeavesAReportThatTheNextRunHandsToTheBugReporter)
{
    // The first run only records its launch; nothing crashed before it.
    EXPECT_FALSE(repairLog().contains(QStringLiteral("Application crashed on last launch")));

    const QString name = crashARepair();
    EXPECT_TRUE(QRegularExpression(QStringLiteral("^Mendwell_\\d{4}-\\d\\d-\\d\\d-\\d{6}_[^.]+\\.crash$"))
                    .match(name)
                    .hasMatch())
        << name.toStdString();
    const QString path = kReports + QLatin1Char('/') + name;
    const QString report = QString::fromUtf8(box.readFile(path));
    EXPECT_TRUE(report.contains(QStringLiteral("Exception Type:  SIGSEGV (signal 11)\n"
                                               "Exception Codes: sent by process ")))
        << report.toStdString();
    // It died sleeping in the step that ends the background processes.
    EXPECT_TRUE(report.contains(QStringLiteral("stopAll"))) << report.toStdString();
    EXPECT_EQ(disk::info(box.hostPath(path)).st_uid, Sandbox::userId());

    // The next run finds it and opens it with the bug reporter, as anna. (It starts
    // in a later second: the stamps keep whole seconds, so a run in the same second
    // as the report would offer it once more.)
    QThread::msleep(1100);
    EXPECT_TRUE(repairLog().contains(QStringLiteral(" - Application crashed on last launch\n")));
    EXPECT_EQ(bugReporterRecord(1),
              QStringList{
                  QStringLiteral("launch uid=%1 home=/Users/anna open=%2").arg(Sandbox::userId()).arg(path)});
    // The one after it does not offer the same report again.
    EXPECT_FALSE(repairLog().contains(QStringLiteral("Application crashed on last launch")));
    EXPECT_EQ(bugReporterRecord().size(), 1);
}

TEST_F(CrashReportTest, TheSuiteSwitchKeepsReportsFromTheBugReporter)
{
    ASSERT_TRUE(PropertyList::writeXmlFile(
        box.hostPath(QStringLiteral("/Users/anna/Library/Preferences/com.lanternfish.global.plist")),
        QVariantMap{{QStringLiteral("disable-crash-reporter"), QStringLiteral("1")}}));
    repairLog();
    crashARepair();
    const ProcessResult next =
        box.runAsRoot({QStringLiteral("Mendwell"), QStringLiteral("-repair"), QStringLiteral("-silent")});
    const QString log = QString::fromUtf8(box.readFile(kLog));
    EXPECT_TRUE(log.contains(QStringLiteral(" - Application crashed on last launch\n")));
    EXPECT_TRUE(log.contains(QStringLiteral(" - Crash reporter disabled\n"))) << log.toStdString();
    EXPECT_TRUE(next.err.contains("] Crash reporter disabled\n")) << next.err.constData();
    EXPECT_TRUE(bugReporterRecord().isEmpty());
}

TEST_F(CrashReportTest, TheReportIsTheNewestOfTheFirstFolderThatHasOneNewerThanTheLaunch)
{
    const QString stamps = QStringLiteral("/Users/anna/Library/Preferences/com.lanternfish.Mendwell.plist");
    const QString program = box.installTestProgram(QStringLiteral("app-crashcheck"));
    const auto check = [&] {
        return QString::fromUtf8(
            box.runAsRoot({program, QStringLiteral("check"), QStringLiteral("Mendwell"), stamps})
                .out.trimmed());
    };
    // Whole seconds, as the stamps keep them.
    const QDateTime launch =
        QDateTime::fromSecsSinceEpoch(QDateTime::currentSecsSinceEpoch() - 3600, Qt::UTC);
    const auto stamp = [&](const QVariantMap &values) {
        ASSERT_TRUE(PropertyList::writeXmlFile(box.hostPath(stamps), values));
    };
    const auto report = [&](const QString &path, qint64 secondsAfterLaunch) {
        ASSERT_TRUE(box.writeFile(path, "report", true));
        QFile file(box.hostPath(path));
        ASSERT_TRUE(file.open(QIODevice::ReadWrite));
        ASSERT_TRUE(file.setFileTime(launch.addSecs(secondsAfterLaunch), QFileDevice::FileModificationTime));
    };
    const QString user = QStringLiteral("/Users/anna/Library/Logs/");
    const QString machine = QStringLiteral("/Library/Logs/");

    report(machine + QStringLiteral("DiagnosticReports/Mendwell_machine.crash"), 60);
    EXPECT_EQ(check(), QStringLiteral("none"));  // no launch recorded: the first run
    stamp({{QStringLiteral("launch"), launch}, {QStringLiteral("exit"), launch}});
    EXPECT_EQ(check(), QStringLiteral("none"));  // an exit as late as the launch: clean
    stamp({{QStringLiteral("launch"), launch}, {QStringLiteral("exit"), launch.addSecs(-1)}});
    EXPECT_EQ(check(), machine + QStringLiteral("DiagnosticReports/Mendwell_machine.crash"));

    // Earlier folders come first, but only with a report newer than the launch
    // whose name is the application's, in any case, and "_".
    report(user + QStringLiteral("CrashReporter/Mendwell_same-second.crash"), 0);
    report(user + QStringLiteral("DiagnosticReports/MendwellHelper_newer.crash"), 120);
    report(machine + QStringLiteral("CrashReporter/MENDWELL_2026.ips"), 30);
    EXPECT_EQ(check(), machine + QStringLiteral("CrashReporter/MENDWELL_2026.ips"));
    report(user + QStringLiteral("DiagnosticReports/mendwell_user.crash"), 10);
    EXPECT_EQ(check(), user + QStringLiteral("DiagnosticReports/mendwell_user.crash"));

    // Of the reports named by their date, the newest by that date (a name without
    // one counts as older), whatever the folder lists last: ext4 lists in a hash
    // order, tmpfs the last made first. The newest is made first, then last.
    for (const bool newestFirst : {true, false}) {
        const QString host = newestFirst ? QStringLiteral("mac") : QStringLiteral("linux");
        QStringList made;
        for (const char *date :
             {"2026-03-10-000000", "2026-03-09-235959", "2026-02-11-093000", "2025-12-31-235959"})
            made << user + QStringLiteral("DiagnosticReports/Mendwell_%1_%2.crash")
                               .arg(QLatin1String(date), host);
        made.first().replace(QStringLiteral("Mendwell_"), QStringLiteral("MENDWELL_"));  // the first name
        if (!newestFirst)
            std::reverse(made.begin(), made.end());
        for (const QString &path : made)
            report(path, 20);
        EXPECT_EQ(check(), newestFirst ? made.first() : made.last());
        for (const QString &path : made)
            QFile::remove(box.hostPath(path));
    }

    // The windowed start, as anna in her own tree, keeps its stamps in her settings.
    box.runAsRoot({QStringLiteral("chown"), QStringLiteral("-R"), QStringLiteral("anna:"),
                   QStringLiteral("/Users/anna")});
    // The window opens off screen and is closed the way a log-out closes it.
    const ProcessResult windowed = box.runAsUser(
        {QStringLiteral("sh"), QStringLiteral("-c"),
         QStringLiteral("/Applications/Mendwell.app/Contents/MacOS/Mendwell & n=0; "
                        "until [ -s \"$HOME/Library/Logs/Lanternfish/Mendwell.1.log\" ] || [ $n -ge 2000 ]; "
                        "do sleep 0.01; n=$((n + 1)); done; kill -TERM $!; wait $!")},
        {QStringLiteral("QT_QPA_PLATFORM=offscreen")});
    EXPECT_EQ(windowed.exitCode, 0) << windowed.err.constData();
    const QVariantMap own = PropertyList::readDictionary(box.hostPath(stamps));
    EXPECT_LE(own.value(QStringLiteral("launch")).toDateTime(),
              own.value(QStringLiteral("exit")).toDateTime());
    EXPECT_GT(own.value(QStringLiteral("launch")).toDateTime(), launch);
    EXPECT_TRUE(box.readFile(QStringLiteral("/Library/Logs/Lanternfish/app-crashcheck.1.log"))
                    .contains(" - Application crashed on last launch\n"));
}

TEST_F(CrashReportTest, UncaughtExceptionsAndOverflowedWorkerThreadsAreReported)
{
    const QString program = box.installTestProgram(QStringLiteral("app-crashcheck"));
    // The log's terminate handler comes after the crash writer's, or before it when
    // the log is used first.
    for (const QString &order : {QStringLiteral("writer-first"), QStringLiteral("log-first")}) {
        const QString report =
            crashReportOf({program, QStringLiteral("throw"), order, QStringLiteral("disk on fire")}, SIGABRT);
        EXPECT_TRUE(report.contains(
            QStringLiteral("Exception Type:  uncaught C++ exception (std::runtime_error)\n\n"
                           "Application Specific Information:\n*** Terminating app due to uncaught "
                           "exception 'std::runtime_error', reason: 'disk on fire'\n\nThread 0 Crashed:\n")))
            << order.toStdString() << report.toStdString();
        EXPECT_TRUE(box.readFile(QStringLiteral("/Library/Logs/Lanternfish/app-crashcheck.1.log"))
                        .endsWith(" - disk on fire\n"))
            << order.toStdString();
    }

    const QString overflowed = crashReportOf({program, QStringLiteral("overflow")}, SIGSEGV);
    EXPECT_TRUE(
        overflowed.contains(QStringLiteral("Exception Type:  SIGSEGV (signal 11)\nException Codes: code ")))
        << overflowed.toStdString();
    // On the queue's thread, named by its id.
    EXPECT_TRUE(
        QRegularExpression(QStringLiteral("\nThread [1-9]\\d* Crashed:\n")).match(overflowed).hasMatch())
        << overflowed.toStdString();
}

}  // namespace
