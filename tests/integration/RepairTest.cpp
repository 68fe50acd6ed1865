// The repair as users run it: Mendwell -repair as a process in the sandbox, as root
// for console user anna (or as anna, who cannot authorize), on a session bus of
// the test's own with a real notification server. A stand-in editor
// (tests/programs/editorstandin.cpp) with Premiere Pro's bundle identifier runs
// as anna in /Applications. One driver script per sandbox run starts the editor,
// runs Mendwell and waits for the editor to come back, all in the sandbox's own
// process namespace. This program listens on the bus for the closing signal.

#include "system/HXDistributedNotificationCenter.h"
#include "tests/support/Sandbox.h"
#include "tests/support/TestCallbackClient.h"
#include "tests/support/TestDesktop.h"
#include "tests/support/TestFiles.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QRegularExpression>
#include <QThread>

#include <gtest/gtest.h>

#include <plist/plist.h>
#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>

namespace {

const QString kEditor = QStringLiteral("/Applications/Adobe Premiere Pro.app");
const QString kRecord = QStringLiteral("/Users/anna/editor.record");
const QString kDriver = QStringLiteral("/Applications/TestPrograms/repairdriver.sh");
const QString kTimeFile = QStringLiteral("/Library/TestRuns/repair.time");

// repairdriver.sh BEHAVIOUR COMMAND...: BEHAVIOUR is "none" (no editor runs) or
// the editor's ("quit-after N", "refuse"); a bystander application then runs too,
// recording each look through the running applications. Mendwell's own output is
// the driver's.
const char kDriverScript[] = R"sh(set -u
behaviour=$1
shift
record=/Users/anna/editor.record
app="/Applications/Adobe Premiere Pro.app"
launches() { grep -c launch "$record" 2>/dev/null || true; }
if [ "$behaviour" != none ]; then
    printf '%s\n%s\n' "$behaviour" "$record" >"$app/Contents/Resources/behaviour"
    setpriv --reuid=anna --regid=anna --init-groups -- env HOME=/Users/anna \
        "$app/Contents/MacOS/Adobe Premiere Pro" &
    setpriv --reuid=anna --regid=anna --init-groups -- /Applications/Bystander.app/Contents/MacOS/Bystander &
    until [ "$(launches)" = 1 ]; do sleep 0.01; done
    n=0
    until grep -q look "$record" || [ $n -ge 1000 ]; do sleep 0.01; n=$((n + 1)); done
fi
before=$(launches)
start=$(date +%s%N)
"$@"
end=$(date +%s%N)
echo "$(((end - start) / 1000000))" >/Library/TestRuns/repair.time
# The editor started again on its own; give it a moment to say so.
if [ "$behaviour" != none ]; then
    n=0
    while [ "$(launches)" = "$before" ] && [ $n -lt 500 ]; do sleep 0.01; n=$((n + 1)); done
fi
)sh";

const QStringList kSampleTrash = {
    QStringLiteral("/Library/Preferences/com.adobe.CSXS.4.plist"),
    QStringLiteral("/Users/anna/Documents/Adobe/Premiere Pro/7.0/Layouts/Color Correction.xml"),
    QStringLiteral("/Users/anna/Documents/Adobe/Premiere Pro/7.0/Layouts/Editing.xml"),
    QStringLiteral("/Users/anna/Documents/Adobe/Premiere Pro/7.0/Layouts/Effects.xml"),
    QStringLiteral("/Users/anna/Library/Application Support/Adobe/Premiere Pro/7.0/Adobe Premiere Pro Prefs"),
    QStringLiteral("/Users/anna/Library/Caches/TemporaryItems/com.adobe.dynamiclinkmanager.1234"),
    QStringLiteral("/Users/anna/Library/Preferences/Adobe/dynamiclinkmanager/7.0/memorybalancerdlserver.xml"),
    QStringLiteral("/Users/anna/Library/Preferences/com.Adobe.Common 7.0.plist"),
    QStringLiteral("/Users/anna/Library/Preferences/com.Adobe.Premiere Pro.7.0.plist"),
    QStringLiteral("/Users/anna/Library/Preferences/com.adobe.CSXS.4.plist"),
    QStringLiteral("/Users/anna/Library/Preferences/com.adobe.crashreporter.plist"),
};

const QString kWrongHeading = QStringLiteral("The following files have incorrect permissions:\n");

struct RepairRun {
    ProcessResult process;
    // The console lines, as the system log on standard error shows them.
    QStringList console;
    // What the closing signal carried: none when no signal came; "output" absent
    // inside when it had none.
    std::optional<QVariantMap> finished;
    // Notices the server showed during the run ("summary|body").
    QStringList notices;
    qint64 milliseconds = -1;
};

// Console lines: each system-log line starts with its date and "Mendwell[pid] ";
// lines without that prefix continue the one before.
QStringList consoleLines(const QByteArray &err)
{
    static const QRegularExpression prefix(
        QStringLiteral("^\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d\\.\\d{3} Mendwell\\[\\d+\\] "));
    QStringList lines;
    for (const QString &line : QString::fromUtf8(err).split(QLatin1Char('\n'))) {
        const QRegularExpressionMatch match = prefix.match(line);
        if (match.hasMatch())
            lines.append(line.mid(match.capturedLength()));
        else if (!lines.isEmpty())
            lines.last() += QLatin1Char('\n') + line;
    }
    if (!lines.isEmpty() && lines.last().endsWith(QLatin1Char('\n')))
        lines.last().chop(1);
    return lines;
}

// The listing inside LINE sorted, so lines can be compared whatever the order the
// file system listed the wrong items in.
QStringList withSortedListing(QStringList lines)
{
    for (QString &line : lines)
        if (line.startsWith(kWrongHeading)) {
            QStringList paths = line.mid(kWrongHeading.size()).split(QLatin1Char('\n'));
            std::sort(paths.begin(), paths.end());
            line = kWrongHeading + paths.join(QLatin1Char('\n'));
        }
    return lines;
}

class RepairTest : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        if (!Sandbox::unavailableReason().isEmpty())
            return;
        desktop = new TestDesktop;
        if (!desktop->isRunning())
            return;
        desktop->bus.useForThisProcess();
        HXDistributedNotificationCenter::defaultCenter().addObserver(
            QStringLiteral("hxMendwellScanFinished"),
            [](const HXNotification &notification) { finished.push_back(notification.userInfo); });
    }

    static void TearDownTestSuite() { delete desktop; }

    void SetUp() override
    {
        SKIP_WITHOUT_SANDBOX();
        ASSERT_TRUE(desktop->isRunning());
        ASSERT_TRUE(box.makeFolder(QStringLiteral("/Library/Logs/Lanternfish")));
        // The driver writes its timing here whoever it runs as.
        ASSERT_TRUE(box.makeFolder(QStringLiteral("/Library/TestRuns"), false, 01777));
        ASSERT_TRUE(box.writeFile(kDriver, kDriverScript));
    }

    void makeSample() { ASSERT_TRUE(::makeSample(box.hostPath({}))); }

    // An editor bundle with Premiere Pro's identifier, and a bystander beside it;
    // they run only when a run asks for the editor.
    void installEditor()
    {
        ASSERT_TRUE(box.installStandInApplication(
            kEditor, QStringLiteral("Adobe Premiere Pro"),
            "<key>CFBundleIdentifier</key><string>com.adobe.AdobePremierePro</string>"
            "<key>CFBundleName</key><string>Adobe Premiere Pro</string>"));
        ASSERT_TRUE(box.installStandInApplication(
            QStringLiteral("/Applications/Bystander.app"), QStringLiteral("Bystander"),
            "<key>CFBundleIdentifier</key><string>com.example.Bystander</string>", "watch", kRecord));
    }

    // The three Adobe folders the audit looks at, correct and empty.
    void makeAdobeFolders()
    {
        ASSERT_TRUE(box.makeFolder(QStringLiteral("/Users/anna/Library/Application Support/Adobe"), true));
        ASSERT_TRUE(box.makeFolder(QStringLiteral("/Users/anna/Documents/Adobe"), true));
        ASSERT_TRUE(box.makeFolder(QStringLiteral("/Library/Application Support/Adobe")));
    }

    RepairRun repair(const QStringList &switches, const QString &editor = QStringLiteral("none"),
                     bool asRoot = true)
    {
        RepairRun run;
        const std::size_t signalsBefore = finished.size();
        const qsizetype noticesBefore = desktop->server->shownNotices().size();
        const QStringList command =
            QStringList{QStringLiteral("sh"), kDriver, editor, Sandbox::mendwellPath()} + switches;
        const QStringList environment{desktop->bus.environmentEntry()};
        run.process = asRoot ? box.runAsRoot(command, environment) : box.runAsUser(command, environment);
        run.console = consoleLines(run.process.err);
        run.milliseconds = box.readFile(kTimeFile).trimmed().toLongLong();
        // The signal left before Mendwell ended; give the bus a moment to hand it on.
        QElapsedTimer waited;
        waited.start();
        while (finished.size() == signalsBefore && waited.elapsed() < 10000)
            QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
        if (finished.size() == signalsBefore + 1)
            run.finished = finished.back();
        // Notices are recorded as the server shows them, a little later.
        QThread::msleep(1500);
        for (const QString &notice : desktop->server->shownNotices().mid(noticesBefore))
            run.notices.append(
                notice.section(QStringLiteral("\tsummary="), 1).section(QLatin1Char('\t'), 0, 0) +
                QLatin1Char('|') +
                notice.section(QStringLiteral("\tbody="), 1).section(QLatin1Char('\t'), 0, 0));
        std::printf("[ repair   ] %s: %lld ms\n", qPrintable(switches.join(QLatin1Char(' '))),
                    static_cast<long long>(run.milliseconds));
        return run;
    }

    QStringList trashListing() const
    {
        const ProcessResult listed = box.runAsUser({QStringLiteral("trash-list")});
        QStringList paths;
        for (const QString &line : QString::fromUtf8(listed.out).split(QLatin1Char('\n'), Qt::SkipEmptyParts))
            paths.append(line.section(QLatin1Char(' '), 2));
        std::sort(paths.begin(), paths.end());
        return paths;
    }

    // The editor's launches and quit requests; with LOOKS, the bystander's too.
    QStringList editorRecord(bool looks = false) const
    {
        QStringList lines =
            QString::fromUtf8(box.readFile(kRecord)).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
        if (!looks)
            lines.removeAll(QStringLiteral("look"));
        return lines;
    }

    // The repair's checks whether the editor has quit, from the bystander's looks:
    // less its own, the one that found the editor and the two that asked it to quit.
    qsizetype quitChecks() const { return editorRecord(true).count(QStringLiteral("look")) - 4; }

    static TestDesktop *desktop;
    static std::vector<QVariantMap> finished;
    Sandbox box;
};

TestDesktop *RepairTest::desktop = nullptr;
std::vector<QVariantMap> RepairTest::finished;

const QStringList kNotices = {QStringLiteral("Mendwell|Repairing Creative Suite..."),
                              QStringLiteral("Mendwell|Repair complete.")};

TEST_F(RepairTest, RepairsTheSampleWhileTheEditorQuitsAndStartsTheEditorAgain)
{
    makeSample();
    installEditor();
    const RepairRun first =
        repair({QStringLiteral("-repair"), QStringLiteral("-trash")}, QStringLiteral("quit-after 5"));
    const QStringList expected = {
        QStringLiteral("Starting repair..."),
        QStringLiteral("Waiting for Premiere Pro to exit..."),
        QStringLiteral("Trashing preferences..."),
        QStringLiteral("Trashing workspaces..."),
        QStringLiteral("Terminating processes..."),
        QStringLiteral("Trashing dynamic link caches..."),
        QStringLiteral("Resetting memory balancer..."),
        QStringLiteral("Checking file permissions..."),
        kWrongHeading + kSampleWrong.join(QLatin1Char('\n')),
        QStringLiteral("Setting correct permissions on 4 files..."),
        QStringLiteral("Checking 32-bit flag..."),
        QStringLiteral("Finishing..."),
        QStringLiteral("Processing complete. Errors were found during processing."),
    };
    EXPECT_EQ(withSortedListing(first.console), expected) << first.process.err.constData();
    ASSERT_TRUE(first.finished.has_value());
    EXPECT_EQ(first.finished->value(QStringLiteral("output")).toString(),
              first.console.join(QStringLiteral("\n\n")));
    EXPECT_EQ(first.notices, kNotices);
    EXPECT_EQ(trashListing(), kSampleTrash);
    // Asked to quit, it took five seconds: checked two seconds apart, and gone at the
    // third check. Then the repair started it again, as anna.
    EXPECT_EQ(quitChecks(), 3);
    const QString launch = QStringLiteral("launch uid=%1 home=/Users/anna").arg(Sandbox::userId());
    EXPECT_EQ(editorRecord(), (QStringList{launch, QStringLiteral("term"), launch}));
    // What the user keeps: projects and a plug-in's settings.
    EXPECT_TRUE(box.exists(QStringLiteral("/Users/anna/Movies/Trailer.prproj")));
    EXPECT_TRUE(
        box.exists(QStringLiteral("/Users/anna/Library/Application Support/Adobe/Premiere Pro/7.0/Plugins")));

    // The permissions stay corrected; the editor is not running, so nobody waits
    // for it and nothing is started.
    const RepairRun second = repair({QStringLiteral("-repair")});
    EXPECT_EQ(second.console, (QStringList{
                                  QStringLiteral("Starting repair..."),
                                  QStringLiteral("Terminating processes..."),
                                  QStringLiteral("Trashing dynamic link caches..."),
                                  QStringLiteral("Resetting memory balancer..."),
                                  QStringLiteral("Checking file permissions..."),
                                  QStringLiteral("No file permission errors found."),
                                  QStringLiteral("Checking 32-bit flag..."),
                                  QStringLiteral("Finishing..."),
                                  QStringLiteral("Processing complete. No errors were found."),
                              }));
    EXPECT_EQ(second.notices, kNotices);
    EXPECT_EQ(editorRecord().size(), 3);
    EXPECT_EQ(trashListing(), kSampleTrash);
}

TEST_F(RepairTest, AnEditorThatRefusesToQuitHoldsTheRepairAboutFortyTwoSeconds)
{
    makeAdobeFolders();
    installEditor();
    const RepairRun run = repair({QStringLiteral("-repair")}, QStringLiteral("refuse"));
    // 21 looks two seconds apart, then two seconds for the background processes.
    EXPECT_GE(run.milliseconds, 44000);
    EXPECT_EQ(run.console.mid(0, 3), (QStringList{QStringLiteral("Starting repair..."),
                                                  QStringLiteral("Waiting for Premiere Pro to exit..."),
                                                  QStringLiteral("Terminating processes...")}));
    EXPECT_EQ(run.console.value(run.console.size() - 1),
              QStringLiteral("Processing complete. No errors were found."));
    // 21 checks, and still running; started a second time all the same.
    EXPECT_EQ(quitChecks(), 21);
    const QString launch = QStringLiteral("launch uid=%1 home=/Users/anna").arg(Sandbox::userId());
    EXPECT_EQ(editorRecord(), (QStringList{launch, QStringLiteral("term"), launch}));
}

TEST_F(RepairTest, WithoutAuthorizationNothingHappensAndTheSignalSaysSo)
{
    makeSample();
    const RepairRun run =
        repair({QStringLiteral("-repair"), QStringLiteral("-trash")}, QStringLiteral("none"),
               /*asRoot=*/false);
    EXPECT_EQ(run.console, QStringList{QStringLiteral("Unable to authorize")});
    ASSERT_TRUE(run.finished.has_value());
    EXPECT_EQ(*run.finished, (QVariantMap{{QStringLiteral("output"),
                                           QStringLiteral("Unable to authorize. Repair canceled.")}}));
    EXPECT_EQ(run.notices, (QStringList{QStringLiteral("Mendwell|Repairing Creative Suite..."),
                                        QStringLiteral("Mendwell|Repair failed.")}));
    EXPECT_TRUE(trashListing().isEmpty());
    EXPECT_TRUE(box.exists(QStringLiteral("/Users/anna/Library/Preferences/com.adobe.CSXS.4.plist")));
}

// A binary list as the system writes it, with the editor only in the second table.
QByteArray binaryLaunchServices()
{
    plist_t root = plist_new_dict();
    plist_t first = plist_new_dict();
    plist_t other = plist_new_array();
    plist_array_append_item(other, plist_new_string("i386"));
    plist_array_append_item(other, plist_new_string("i386"));
    plist_dict_set_item(first, "com.example.Other", other);
    plist_t second = plist_new_dict();
    plist_t editor = plist_new_array();
    plist_array_append_item(editor, plist_new_string("x86_64"));
    plist_array_append_item(editor, plist_new_string("i386"));
    plist_dict_set_item(second, "com.adobe.AdobePremierePro", editor);
    plist_dict_set_item(root, "LSArchitecturesForX86_64", first);
    plist_dict_set_item(root, "LSArchitecturesForX86_64v2", second);
    char *bytes = nullptr;
    uint32_t length = 0;
    plist_to_bin(root, &bytes, &length);
    QByteArray data(bytes, static_cast<qsizetype>(length));
    std::free(bytes);
    plist_free(root);
    return data;
}

TEST_F(RepairTest, SilentRunsSayNothingButTheThirtyTwoBitWarningAndStillSignalTheEnd)
{
    makeSample();
    installEditor();
    const RepairRun quiet =
        repair({QStringLiteral("-repair"), QStringLiteral("-silent"), QStringLiteral("-trashPrefs")});
    EXPECT_TRUE(quiet.console.isEmpty()) << quiet.process.err.constData();
    EXPECT_TRUE(quiet.process.out.isEmpty()) << quiet.process.out.constData();
    EXPECT_TRUE(quiet.notices.isEmpty()) << quiet.notices.join(QLatin1Char('\n')).toStdString();
    ASSERT_TRUE(quiet.finished.has_value());
    EXPECT_FALSE(quiet.finished->contains(QStringLiteral("output")));
    // It did the work all the same (the window layouts stay), and the log says which
    // items were wrong.
    QStringList layoutsKept = kSampleTrash;
    layoutsKept.removeIf([](const QString &path) { return path.contains(QStringLiteral("/Layouts/")); });
    EXPECT_EQ(trashListing(), layoutsKept);
    const QString log =
        QString::fromUtf8(box.readFile(QStringLiteral("/Library/Logs/Lanternfish/Mendwell.task.1.log")));
    EXPECT_TRUE(log.contains(QStringLiteral(" - Incorrect file permissions on: (\n    \"")))
        << log.toStdString();
    for (const QString &path : kSampleWrong)
        EXPECT_TRUE(log.contains(QLatin1Char('"') + path + QLatin1Char('"'))) << path.toStdString();

    ASSERT_TRUE(
        box.writeFile(QStringLiteral("/Users/anna/Library/Preferences/com.apple.LaunchServices.plist"),
                      binaryLaunchServices(), true));
    const QString warning =
        QStringLiteral("Adobe Premiere Pro is set to run in 32-bit mode. This may cause problems. To fix "
                       "this, ctrl-click the "
                       "application, click Get Info and deselect \"Open in 32-bit mode\".");
    // The flag alone makes the verdict; the layouts go now.
    const RepairRun flagged = repair({QStringLiteral("-repair"), QStringLiteral("-trashworkspace")});
    EXPECT_EQ(trashListing(), kSampleTrash);
    EXPECT_EQ(flagged.console.value(1), QStringLiteral("Trashing workspaces..."));
    EXPECT_EQ(flagged.console.mid(6),
              (QStringList{
                  QStringLiteral("No file permission errors found."),
                  QStringLiteral("Checking 32-bit flag..."),
                  warning,
                  QStringLiteral("Finishing..."),
                  QStringLiteral("Processing complete. Errors were found during processing."),
              }));
    const RepairRun silent = repair({QStringLiteral("-repair"), QStringLiteral("-silent")});
    EXPECT_EQ(silent.console, QStringList{warning});
    ASSERT_TRUE(silent.finished.has_value());
    EXPECT_EQ(silent.finished->value(QStringLiteral("output")).toString(), warning);
}

TEST_F(RepairTest, LongListsShowTwentyPathsAndACount)
{
    makeAdobeFolders();
    const QString folder = QStringLiteral("/Users/anna/Library/Application Support/Adobe/Cache");
    ASSERT_TRUE(box.makeFolder(folder, true));
    int made = 0;
    // Files left behind by root in anna's folder: each has the wrong owner.
    const auto addWrongFiles = [&](int count) {
        for (int i = 0; i < count; ++i, ++made)
            box.writeFile(folder + QStringLiteral("/item%1").arg(made, 3, 10, QLatin1Char('0')), "x");
    };
    struct Case {
        int count;
        QString listed;  // the count line, if any
        QString setting;
    };
    const Case cases[] = {
        {1, QString(), QStringLiteral("Setting correct permissions on 1 file...")},
        {20, QString(), QStringLiteral("Setting correct permissions on 20 files...")},
        {21, QStringLiteral("(plus 1 more)"), QStringLiteral("Setting correct permissions on 21 files...")},
        {49, QStringLiteral("(plus 29 more)"), QStringLiteral("Setting correct permissions on 49 files...")},
        {50, QStringLiteral("(plus 30 more)"),
         QStringLiteral("Setting correct permissions on 50 files. This could take a while...")},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.count);
        addWrongFiles(c.count);
        const RepairRun run = repair({QStringLiteral("-repair")});
        ASSERT_GE(run.console.size(), 7);
        // The first 20 in the audit's order, the file system's: only the new ones,
        // since each run corrected what it found.
        QStringList listing;
        for (const QString &name : QDir(box.hostPath(folder)).entryList(QDir::Files, QDir::Unsorted))
            if (name.mid(4).toInt() >= made - c.count && listing.size() < 20)
                listing.append(folder + QLatin1Char('/') + name);
        if (!c.listed.isEmpty())
            listing.append(c.listed);
        EXPECT_EQ(run.console[5], kWrongHeading + listing.join(QLatin1Char('\n')));
        EXPECT_EQ(run.console[6], c.setting);
        EXPECT_EQ(run.console.last(),
                  QStringLiteral("Processing complete. Errors were found during processing."));
    }
}

TEST_F(RepairTest, AQuitRequestWithNothingToQuitIsLoggedAndToldToTheClient)
{
    TestCallbackClient client(QStringLiteral("com.lanternfish.HXMarlinClientCallback"),
                              QStringLiteral("postErrorString"));
    ASSERT_TRUE(client.isReady());
    const QString program = box.installInBundle(QStringLiteral("app-cleanupstep"));
    const ProcessResult result =
        box.runAsRoot({program, QStringLiteral("quit"), QStringLiteral("Adobe Premiere Pro")},
                      {desktop->bus.environmentEntry()});
    ASSERT_EQ(result.exitCode, 0) << result.err.constData();
    // Two blanks before the dash in the log, one for the client.
    const QString log =
        QString::fromUtf8(box.readFile(QStringLiteral("/Library/Logs/Lanternfish/app-cleanupstep.1.log")));
    EXPECT_TRUE(log.contains(
        QStringLiteral(" - Unable to quit Adobe Premiere Pro application  - Application isn't running.\n")))
        << log.toStdString();
    EXPECT_EQ(client.received(), QStringList{QStringLiteral(
                                     "postErrorString|oneway|Unable to quit Adobe Premiere Pro application - "
                                     "Application isn't running.")});
}

TEST_F(RepairTest, ThePrivilegedTrashStepsGoThroughTrashtoolIntoTheConsoleUsersTrash)
{
    const QString folder = QStringLiteral("/Users/anna/Library/Caches/Adobe");
    for (const char *name : {"/single.dat", "/Media/one.cfa", "/Media/two.pek"})
        ASSERT_TRUE(box.writeFile(folder + QLatin1String(name), "cache", true));
    const QString program = box.installInBundle(QStringLiteral("app-cleanupstep"));
    for (const QStringList &step :
         {QStringList{QStringLiteral("trashfile"), folder + QStringLiteral("/single.dat")},
          QStringList{QStringLiteral("trashcontents"), folder + QStringLiteral("/Media")}})
        ASSERT_EQ(box.runAsRoot(QStringList{program} + step).exitCode, 0);
    EXPECT_EQ(trashListing(), (QStringList{folder + QStringLiteral("/Media/one.cfa"),
                                           folder + QStringLiteral("/Media/two.pek"),
                                           folder + QStringLiteral("/single.dat")}));
    EXPECT_TRUE(box.exists(folder + QStringLiteral("/Media")));
    const QString log =
        QString::fromUtf8(box.readFile(QStringLiteral("/Library/Logs/Lanternfish/app-cleanupstep.1.log")));
    EXPECT_TRUE(log.contains(QStringLiteral(" - Trashing contents of folder ") + folder +
                             QStringLiteral("/Media...\n")))
        << log.toStdString();
}

// anna keeps ~/Documents in a synced folder and her Adobe support folder on a
// second disk, each through a link of her own: the repair treats them as hers.
// A link of hers to a folder that is not hers still leads root nowhere.
TEST_F(RepairTest, HerOwnLinkedFoldersAreRepairedLikeAnyOtherAndNoneElse)
{
    makeSample();
    const QString home = QStringLiteral("/Users/anna");
    const QString support = home + QStringLiteral("/Library/Application Support/Adobe");
    const auto hostPath = [this](const QString &path) { return box.hostPath(path); };
    ASSERT_TRUE(moveBehindUsersLink(hostPath, home + QStringLiteral("/Documents"),
                                    home + QStringLiteral("/Cloud/Documents"), Sandbox::userId(),
                                    Sandbox::userGroupId()));
    ASSERT_TRUE(moveBehindUsersLink(hostPath, support, home + QStringLiteral("/Disk2/Adobe"),
                                    Sandbox::userId(), Sandbox::userGroupId()));

    const RepairRun first = repair({QStringLiteral("-repair"), QStringLiteral("-trash")});
    EXPECT_TRUE(first.console.contains(QStringLiteral("Setting correct permissions on 4 files...")))
        << first.process.err.constData();
    EXPECT_EQ(trashListing(), kSampleTrash);
    const RepairRun second = repair({QStringLiteral("-repair")});
    EXPECT_TRUE(second.console.contains(QStringLiteral("No file permission errors found.")))
        << second.process.err.constData();
    EXPECT_EQ(second.console.last(), QStringLiteral("Processing complete. No errors were found."));

    // Now her Adobe folder leads to the machine's: root gives her none of it.
    const QString machine = QStringLiteral("/Library/Application Support/Adobe");
    ASSERT_TRUE(box.writeFile(machine + QStringLiteral("/Common/root.db"), "root's", false, 0600));
    ASSERT_TRUE(QFile::remove(box.hostPath(support)));
    ASSERT_TRUE(QFile::link(machine, box.hostPath(support)));
    ASSERT_TRUE(disk::chown(box.hostPath(support), Sandbox::userId(), Sandbox::userGroupId()));
    const RepairRun third = repair({QStringLiteral("-repair")});
    EXPECT_EQ(third.console.last(),
              QStringLiteral("Processing complete. Errors were found during processing."));
    const struct stat file = disk::info(box.hostPath(machine + QStringLiteral("/Common/root.db")));
    EXPECT_EQ(file.st_uid, 0u);
    EXPECT_EQ(file.st_mode & 0777, 0644u) << "the machine's rule, not hers";
    const struct stat folder = disk::info(box.hostPath(machine));
    ASSERT_TRUE(S_ISDIR(folder.st_mode));
    EXPECT_EQ(folder.st_uid, 0u);
}

TEST_F(RepairTest, TheWindowedRepairRunsOnItsOwnThreadAndAnswersWithASheet)
{
    makeSample();
    const std::size_t signalsBefore = finished.size();
    const QString program = box.installInBundle(QStringLiteral("app-windowedrepair"));
    const auto windowed = [&](bool asRoot, const QStringList &boxes) {
        const QStringList command = QStringList{program} + boxes;
        const QStringList environment{desktop->bus.environmentEntry(),
                                      QStringLiteral("QT_QPA_PLATFORM=offscreen")};
        const ProcessResult result =
            asRoot ? box.runAsRoot(command, environment) : box.runAsUser(command, environment);
        EXPECT_EQ(result.exitCode, 0) << result.err.constData();
        return QString::fromUtf8(result.out).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    };
    const QStringList out = windowed(true, {QStringLiteral("trashprefs")});
    ASSERT_EQ(out.size(), 5) << out.join(u'\n').toStdString();
    const QString running = QStringLiteral("running: button=disabled spinner=busy");
    const QString after = QStringLiteral("after: button=enabled spinner=idle");
    EXPECT_EQ(out[0], running);
    EXPECT_EQ(out[1], QStringLiteral("alert: Processing complete | Errors were found during processing.\\n\\n"
                                     "Scroll up to see the relevant error messages."));
    EXPECT_TRUE(
        out[2].startsWith(QStringLiteral("console: Starting repair...\\n\\nTrashing preferences...\\n\\n"
                                         "Terminating processes...")))
        << out[2].toStdString();
    EXPECT_TRUE(out[2].endsWith(QStringLiteral("Processing complete. Errors were found during processing.")));
    EXPECT_EQ(out[3], after);
    // The layout command announces preferences, as it always has.
    const QString layouts = QStringLiteral(
        "alert: Premiere Pro preferences successfully trashed | Please relaunch Premiere Pro.");
    EXPECT_EQ(out[4], layouts);
    // The repair trashed the preferences only; the menu command then the layouts.
    const QStringList trashed = trashListing();
    EXPECT_TRUE(trashed.contains(QStringLiteral("/Users/anna/Library/Preferences/com.adobe.CSXS.4.plist")));
    EXPECT_TRUE(
        trashed.contains(QStringLiteral("/Users/anna/Documents/Adobe/Premiere Pro/7.0/Layouts/Effects.xml")));
    // Nothing left to correct: the sheet says so, without the hint.
    EXPECT_EQ(windowed(true, {}).value(1),
              QStringLiteral("alert: Processing complete | No errors were found."));
    // anna cannot authorize: the window says nothing at all, and the button comes back.
    QStringList refused = windowed(false, {});
    refused.removeAll(running);  // gone before a look, maybe
    EXPECT_EQ(refused, (QStringList{QStringLiteral("console: "), after, layouts}));

    // In the window nothing is signalled.
    QElapsedTimer waited;
    waited.start();
    while (waited.elapsed() < 1000)
        QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
    EXPECT_EQ(finished.size(), signalsBefore);
}

}  // namespace

int main(int argc, char **argv)
{
    QCoreApplication application(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
