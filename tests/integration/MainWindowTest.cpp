// The windowed application as a person uses it: Mendwell started by anna on an X
// display (the window refuses root), clicked and typed at with xdotool,
// photographed with ImageMagick. Repairs run in the polkit namespace on the
// sample tree, where the test types the administrator's password into pkttyagent
// when the repair asks; the rest runs in the sandbox. The screenshots are kept in
// the build folder's window-shots/ for people to look at.

#include "tests/support/PolkitNamespace.h"
#include "tests/support/Sandbox.h"
#include "tests/support/TestDisplay.h"
#include "tests/support/TestFiles.h"

#include "system/PropertyList.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QImage>

#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace {

const QString kDriver = QStringLiteral("/Applications/TestPrograms/windowdriver.sh");
const QString kRuns = QStringLiteral("/Library/TestRuns");
const QString kShotsKept = QStringLiteral(MENDWELL_BINARY_DIR "/window-shots");
const QString kLog = QStringLiteral("/Users/anna/Library/Logs/Lanternfish/Mendwell.1.log");
const QString kSettings = QStringLiteral("/Users/anna/Library/Preferences/com.lanternfish.Mendwell.plist");
const QString kCacheFile =
    QStringLiteral("/Users/anna/Library/Application Support/Adobe/Common/Media Cache Files/clip 1.cfa");

// windowdriver.sh SCENE SCALE: starts Mendwell and acts out SCENE at QT_SCALE_FACTOR
// SCALE. Writes SCENE.figures ("name value" lines) and the screenshots SHOT-SCALE.png
// in /Library/TestRuns. Positions are the main window's layout at scale 1. With
// AGENT set, pkttyagent answers polkit for Mendwell on the terminal.
const char kDriverScript[] = R"sh(set -u
scene=$1
scale=$2
runs=/Library/TestRuns
figures=$runs/$scene-$scale.figures
export QT_SCALE_FACTOR=$scale QT_QPA_PLATFORM=xcb
now() { date +%s%N; }
ours() { xdotool search --onlyvisible --pid "$pid" 2>/dev/null; }
# waitfor TITLE: the first visible window titled TITLE (a pattern), within 20 s.
waitfor() {
    n=0
    while [ $n -lt 2000 ]; do
        w=$(xdotool search --onlyvisible --name "$1" 2>/dev/null | head -1)
        [ -n "$w" ] && { echo "$w"; return 0; }
        sleep 0.01
        n=$((n + 1))
    done
    return 1
}
# count N: waits up to 60 s until N of our windows show.
count() {
    n=0
    until [ "$(ours | wc -l)" -eq "$1" ] || [ $n -ge 6000 ]; do sleep 0.01; n=$((n + 1)); done
}
shot() { sleep 0.4; import -window root -trim +repage "$runs/$1-$scale.png"; }
click() { xdotool mousemove --window "$1" $(($2 * scale)) $(($3 * scale)) click 1; }
press() { xdotool windowfocus --sync "$1"; shift; xdotool key "$@"; }
figure() { echo "$1 $2" >>"$figures"; }
# menu WINDOW OPEN ITEM: opens a menu with its key and, once it shows, picks an item.
menu() {
    before=$(ours | wc -l)
    press "$1" "$2"
    count $((before + 1))
    xdotool key "$3"
}
# waitlog TEXT: waits up to 30 s until the log holds TEXT.
waitlog() {
    n=0
    until grep -qF "$1" /Users/anna/Library/Logs/Lanternfish/Mendwell.1.log 2>/dev/null || [ $n -ge 3000 ]; do
        sleep 0.01
        n=$((n + 1))
    done
}
finish() {  # waits up to 20 s for the end of Mendwell and records its status
    n=0
    while kill -0 "$pid" 2>/dev/null && [ $n -lt 2000 ]; do sleep 0.01; n=$((n + 1)); done
    if kill -0 "$pid" 2>/dev/null; then figure status running; kill -KILL "$pid"; exit 0; fi
    wait "$pid"
    figure status $?
}

: >"$figures"
start=$(now)
/Applications/Mendwell.app/Contents/MacOS/Mendwell >"$runs/$scene-$scale.out" 2>"$runs/$scene-$scale.err" &
pid=$!
agent=
trap '[ -n "$agent" ] && kill "$agent" 2>/dev/null' EXIT
if [ -n "${AGENT:-}" ]; then
    # Registered before the window shows, long before the repair asks.
    fifo=$runs/agent-$scene.fifo
    rm -f "$fifo"
    mkfifo "$fifo"
    pkttyagent --process "$pid" --notify-fd 3 3>"$fifo" &
    agent=$!
    cat "$fifo" >/dev/null
    rm -f "$fifo"
fi
case $scene in
guard)
    # The password is never given: Mendwell must end without showing its window.
    seen=0
    n=0
    while kill -0 "$pid" 2>/dev/null && [ $n -lt 2000 ]; do
        [ -n "$(ours)" ] && seen=1
        n=$((n + 1))
    done
    figure windows $seen
    finish
    ;;
noinfra)
    count 1
    figure windows "$(ours | wc -l)"
    shot panel
    press "$(ours | head -1)" Return
    finish
    ;;
settings)
    # As a user: the two preference boxes, then Help > Report a Bug. Nobody can
    # give the password here, so the machine's setting is refused with a sheet.
    main=$(waitfor '^Mendwell$') || { figure status nowindow; kill "$pid"; exit 0; }
    press "$main" ctrl+comma
    prefs=$(waitfor '^Mendwell Preferences$') || { figure status noprefs; kill "$pid"; exit 0; }
    click "$prefs" 120 68
    count 3
    figure windows "$(ours | wc -l)"
    shot refused
    press "$(ours | grep -vx "$main" | grep -vx "$prefs" | head -1)" Return
    count 2
    [ -e /Library/Preferences/com.lanternfish.Mendwell.plist ] && figure stored 1
    click "$prefs" 120 136
    shot general
    press "$prefs" Escape
    menu "$main" alt+h b
    sleep 0.5
    press "$main" ctrl+q
    finish
    ;;
adminpass)
    # The password requirement on, then off: the machine's file and its owner after each.
    main=$(waitfor '^Mendwell$') || { figure status nowindow; kill "$pid"; exit 0; }
    press "$main" ctrl+comma
    prefs=$(waitfor '^Mendwell Preferences$') || { figure status noprefs; kill "$pid"; exit 0; }
    machine=/Library/Preferences/com.lanternfish.Mendwell.plist
    for state in 1 0; do
        click "$prefs" 120 68
        n=0
        until grep -q "<integer>$state</integer>" "$machine" 2>/dev/null || [ $n -ge 3000 ]; do
            sleep 0.01
            n=$((n + 1))
        done
        cp "$machine" "$runs/admin-$state.plist"
        figure owner_$state "$(stat -c %U "$machine")"
    done
    press "$main" ctrl+q
    finish
    ;;
mediacache)
    # The media cache box, then what the preview says it would move; cancelled.
    main=$(waitfor '^Mendwell$') || { figure status nowindow; kill "$pid"; exit 0; }
    click "$main" 60 195
    shot mediacache-box
    menu "$main" alt+e v
    sleep 0.3
    count 2
    shot mediacache-preview
    press "$(ours | grep -vx "$main" | head -1)" Escape
    count 1
    press "$main" ctrl+q
    finish
    ;;
quitduring)
    main=$(waitfor '^Mendwell$') || { figure status nowindow; kill "$pid"; exit 0; }
    click "$main" 565 490
    # Authorized and well into its steps.
    waitlog "Terminating processes..."
    press "$main" ctrl+q
    finish
    ;;
repair | scaled)
    main=$(waitfor '^Mendwell$') || { figure status nowindow; kill "$pid"; exit 0; }
    figure ready_ms $((($(now) - start) / 1000000))
    figure ready_hwm_kb "$(awk '/VmHWM/ { print $2 }' /proc/$pid/status)"
    shot rest
    click "$main" 60 143
    if [ "$scene" = repair ]; then
        click "$main" 60 169
        click "$main" 60 195
        shot options
        # What the repair will touch, then cancelled.
        menu "$main" alt+e v
        sleep 0.3
        count 2
        shot preview
        press "$(ours | grep -vx "$main" | head -1)" Escape
        count 1
        click "$main" 565 490
        shot running
        count 2
        shot sheet
        press "$(ours | grep -vx "$main" | head -1)" Return
        count 1
        trash-list >"$runs/trashed-$scale.txt"
        # Undo Last Repair: asked, then answered with what came back.
        menu "$main" alt+e u
        sleep 0.3
        count 2
        shot undo
        press "$(ours | grep -vx "$main" | head -1)" Return
        sleep 0.3
        count 2
        shot undone
        press "$(ours | grep -vx "$main" | head -1)" Return
        count 1
        trash-list >"$runs/listed-$scale.txt"
        menu "$main" alt+m a
        if about=$(waitfor '^About Mendwell$'); then
            shot about
            press "$about" Escape
        else
            figure missed about
        fi
    fi
    press "$main" ctrl+comma
    prefs=$(waitfor '^Mendwell Preferences$') || { figure status noprefs; kill "$pid"; exit 0; }
    click "$prefs" 130 30
    if [ "$scene" = repair ]; then
        # The first command's key: a double-click on its row, then the keys.
        xdotool mousemove --window "$prefs" 111 86 click --repeat 2 --delay 80 1
        press "$prefs" ctrl+shift+r
    fi
    shot prefs
    press "$prefs" Escape
    figure end_hwm_kb "$(awk '/VmHWM/ { print $2 }' /proc/$pid/status)"
    press "$main" ctrl+q
    finish
    ;;
esac
)sh";

// What both places share: the display, the driver's files, the screenshots.
class WindowTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() { display = new TestDisplay(QStringLiteral("2560x1600x24")); }
    static void TearDownTestSuite()
    {
        delete display;
        display = nullptr;
    }

    virtual QString hostPath(const QString &path) const = 0;

    QByteArray readFile(const QString &path) const { return disk::read(hostPath(path)); }

    // The figures SCENE wrote at SCALE.
    QMap<QString, QString> figures(const QString &scene, int scale) const
    {
        QMap<QString, QString> figures;
        const QString file = QStringLiteral("%1/%2-%3.figures").arg(kRuns, scene).arg(scale);
        for (const QString &line :
             QString::fromUtf8(readFile(file)).split(QLatin1Char('\n'), Qt::SkipEmptyParts))
            figures.insert(line.section(QLatin1Char(' '), 0, 0), line.section(QLatin1Char(' '), 1));
        return figures;
    }

    QImage shot(const QString &name) const
    {
        QDir().mkpath(kShotsKept);
        const QString inside = QStringLiteral("%1/%2.png").arg(kRuns, name);
        QFile::remove(kShotsKept + QLatin1Char('/') + name + QStringLiteral(".png"));
        QFile::copy(hostPath(inside), kShotsKept + QLatin1Char('/') + name + QStringLiteral(".png"));
        return QImage(hostPath(inside));
    }

    QByteArray runOutput(const QString &scene, int scale, const char *stream) const
    {
        return readFile(
            QStringLiteral("%1/%2-%3.%4").arg(kRuns, scene).arg(scale).arg(QLatin1String(stream)));
    }

    static TestDisplay *display;
};

TestDisplay *WindowTest::display = nullptr;

// The sandbox, without the rights a repair needs.
class MainWindowTest : public WindowTest {
protected:
    void SetUp() override
    {
        SKIP_WITHOUT_SANDBOX();
        ASSERT_TRUE(display->isRunning());
        ASSERT_TRUE(box.makeFolder(QStringLiteral("/Library/Logs/Lanternfish")));
        ASSERT_TRUE(box.makeFolder(kRuns, false, 01777));
        ASSERT_TRUE(box.writeFile(kDriver, kDriverScript));
    }

    QString hostPath(const QString &path) const override { return box.hostPath(path); }

    // Runs SCENE as anna (or as root) and returns its figures.
    QMap<QString, QString> act(const QString &scene, int scale, bool asRoot = false)
    {
        const QStringList command{QStringLiteral("sh"), kDriver, scene, QString::number(scale)};
        // A bus that is not there: without one, the display's D-Bus autolaunch
        // would leave its socket in /tmp.
        const QStringList environment{QStringLiteral("DISPLAY=") + display->display(),
                                      QStringLiteral("DBUS_SESSION_BUS_ADDRESS=unix:path=/nonexistent")};
        const ProcessResult result =
            asRoot ? box.runAsRoot(command, environment) : box.runAsUser(command, environment);
        EXPECT_EQ(result.exitCode, 0) << result.err.constData();
        return figures(scene, scale);
    }

    Sandbox box;
};

// The polkit namespace with the sample tree: the repair asks for the password.
class MainWindowRepairTest : public WindowTest {
protected:
    void SetUp() override
    {
        SKIP_WITHOUT_POLKIT();
        ASSERT_TRUE(display->isRunning());
        ASSERT_TRUE(makeSample(hostPath({})));
        ASSERT_TRUE(polkit.makeFolder(kRuns, false));
        ASSERT_TRUE(disk::chmod(hostPath(kRuns), 01777));
        ASSERT_TRUE(polkit.makeFolder(QStringLiteral("/Applications/TestPrograms"), false));
        ASSERT_TRUE(polkit.writeFile(kDriver, kDriverScript, false));
        ASSERT_TRUE(polkit.makeFolder(QStringLiteral("/Users/anna/.runtime"), true));
        ASSERT_TRUE(disk::chmod(hostPath(QStringLiteral("/Users/anna/.runtime")), 0700));
        ASSERT_TRUE(polkit.makeFolder(kCacheFile.left(kCacheFile.lastIndexOf(QLatin1Char('/'))), true));
        ASSERT_TRUE(polkit.writeFile(kCacheFile, "conformed audio", true));
        // Past the first run the statistics question would come up; it is answered.
        const QString consent = QStringLiteral("/Users/anna/Library/Preferences/com.lanternfish.qc.plist");
        ASSERT_TRUE(
            PropertyList::writeXmlFile(hostPath(consent), QVariantMap{{QStringLiteral("logQC"), false}}));
        ASSERT_TRUE(disk::chown(hostPath(consent), Sandbox::userId(), Sandbox::userGroupId()));
    }

    QString hostPath(const QString &path) const override { return polkit.hostPath(path); }

    // Runs SCENE as anna, typing the password at the first ANSWERED prompts;
    // returns its figures and counts the prompts into PROMPTS. A whole scene may
    // take well over the namespace's usual minute on a busy or sanitized build.
    QMap<QString, QString> act(const QString &scene, int scale, int answered, int *prompts = nullptr)
    {
        const PolkitNamespace::Result result = polkit.runAsUser(
            {QStringLiteral("env"), QStringLiteral("DISPLAY=") + display->display(),
             QStringLiteral("XDG_RUNTIME_DIR=/Users/anna/.runtime"), QStringLiteral("AGENT=1"),
             QStringLiteral("sh"), kDriver, scene, QString::number(scale)},
            answered, PolkitNamespace::Agent::None, std::chrono::seconds(300));
        EXPECT_EQ(result.exitCode, 0) << result.output.constData() << result.errors.constData();
        if (prompts != nullptr)
            *prompts = result.passwordPrompts;
        return figures(scene, scale);
    }

    PolkitNamespace polkit;
};

// The console's red: the errors of a repair.
qsizetype redPixels(const QImage &image)
{
    qsizetype count = 0;
    for (int y = 0; y < image.height(); ++y)
        for (int x = 0; x < image.width(); ++x) {
            const QColor colour = image.pixelColor(x, y);
            count += colour.red() > 200 && colour.green() < 80 && colour.blue() < 80;
        }
    return count;
}

TEST_F(MainWindowRepairTest, ARepairFromTheWindowTrashesWhatTheBoxesSayAndEndsWithASheet)
{
    const QString manager =
        QStringLiteral("/Library/Application Support/Lanternfish/Shared Resources/HXShortcutKeyManager");
    ASSERT_TRUE(polkit.makeFolder(QStringLiteral("/Library/Application Support/Lanternfish/Shared Resources"),
                                  false));
    ASSERT_TRUE(
        polkit.writeFile(manager, "#!/bin/sh\necho \"$*\" >>/Library/TestRuns/manager.record\n", false));
    ASSERT_TRUE(disk::chmod(hostPath(manager), 0755));

    int prompts = 0;
    QMap<QString, QString> figures = act(QStringLiteral("repair"), 1, 4, &prompts);
    ASSERT_EQ(figures.value(QStringLiteral("status")), QStringLiteral("0"))
        << runOutput("repair", 1, "err").data();
    EXPECT_FALSE(figures.contains(QStringLiteral("missed")))
        << figures.value(QStringLiteral("missed")).toStdString();
    std::printf("[ figures ] 100%%: window ready %s ms, peak %s kB at ready, %s kB after the repair; %d "
                "password prompt(s)\n",
                qPrintable(figures.value(QStringLiteral("ready_ms"))),
                qPrintable(figures.value(QStringLiteral("ready_hwm_kb"))),
                qPrintable(figures.value(QStringLiteral("end_hwm_kb"))), prompts);
    // One password for the whole repair.
    EXPECT_EQ(prompts, 1);

    // Both clicked boxes took effect, and are remembered in anna's own settings.
    const QVariantMap settings = PropertyList::readDictionary(hostPath(kSettings));
    EXPECT_EQ(settings.value(QStringLiteral("shouldTrash")).toLongLong(), 1);
    EXPECT_EQ(settings.value(QStringLiteral("shouldTrashWorkspaces")).toLongLong(), 1);
    EXPECT_EQ(disk::info(hostPath(kSettings)).st_uid, Sandbox::userId());
    // Trashed by the repair, and back in place after Undo Last Repair.
    const QByteArray trashed = readFile(kRuns + QStringLiteral("/trashed-1.txt"));
    const QByteArray listed = readFile(kRuns + QStringLiteral("/listed-1.txt"));
    for (const char *item : {"/Users/anna/Library/Preferences/com.Adobe.Premiere Pro.7.0.plist",
                             "/Users/anna/Documents/Adobe/Premiere Pro/7.0/Layouts/Editing.xml"}) {
        EXPECT_TRUE(trashed.contains(item)) << item << "\n" << trashed.constData();
        EXPECT_FALSE(listed.contains(item)) << item << "\n" << listed.constData();
        EXPECT_TRUE(polkit.exists(QLatin1String(item))) << item;
    }

    // The media cache box too: its file went into the clean-up's Trash folder and came back.
    const QByteArray cacheFolder = "/Users/anna/Library/Application Support/Adobe/Common/Media Cache Files";
    EXPECT_TRUE(trashed.contains(cacheFolder)) << trashed.constData();
    EXPECT_FALSE(listed.contains(cacheFolder)) << listed.constData();
    EXPECT_EQ(readFile(kCacheFile), QByteArray("conformed audio"));
    EXPECT_EQ(settings.value(QStringLiteral("shouldTrashMediaCache")).toLongLong(), 1);

    // Every step reached the console, in order.
    const QString log = QString::fromUtf8(readFile(kLog));
    qsizetype at = 0;
    for (const char *line :
         {"Starting repair...", "Trashing preferences...", "Trashing workspaces...",
          "Clearing media cache...", "Moved 1 file (15 bytes) from", "Terminating processes...",
          "Trashing dynamic link caches...", "Resetting memory balancer...", "Checking file permissions...",
          "The following files have incorrect permissions:", "Checking 32-bit flag...", "Finishing...",
          "Processing complete. Errors were found during processing."}) {
        const qsizetype found = log.indexOf(QLatin1String(line), at);
        EXPECT_GE(found, 0) << line;
        at = std::max(at, found);
    }

    // At rest the console is empty; after the repair it shows the errors in red.
    EXPECT_EQ(redPixels(shot(QStringLiteral("rest-1"))), 0);
    EXPECT_GT(redPixels(shot(QStringLiteral("sheet-1"))), 100);
    for (const char *name :
         {"options-1", "preview-1", "running-1", "undo-1", "undone-1", "about-1", "prefs-1"})
        EXPECT_FALSE(shot(QLatin1String(name)).isNull()) << name;

    // The key typed into the shortcut panel is bound for the manager, and it was told.
    const QVariantList watchlist =
        PropertyList::readDictionary(
            hostPath(QStringLiteral("/Users/anna/Library/Preferences/com.lanternfish.shortcutkeys.plist")))
            .value(QStringLiteral("watchlist"))
            .toList();
    ASSERT_EQ(watchlist.size(), 1);
    const QVariantMap binding = watchlist.first().toMap();
    EXPECT_EQ(binding.value(QStringLiteral("bundleid")).toString(),
              QStringLiteral("com.lanternfish.Mendwell"));
    EXPECT_EQ(binding.value(QStringLiteral("commandid")).toString(),
              QStringLiteral("com.lanternfish.Mendwell.repair"));
    EXPECT_EQ(binding.value(QStringLiteral("keycode")).toLongLong(), 27);  // R on the X server's keyboard
    EXPECT_EQ(binding.value(QStringLiteral("modifiers")).toLongLong(), 4096 + 512);
    EXPECT_EQ(readFile(kRuns + QStringLiteral("/manager.record")), "-setup\n");

    // Twice the size: the same window, its first box clicked off again.
    figures = act(QStringLiteral("scaled"), 2, 0);
    ASSERT_EQ(figures.value(QStringLiteral("status")), QStringLiteral("0"))
        << runOutput("scaled", 2, "err").data();
    std::printf("[ figures ] 200%%: window ready %s ms, peak %s kB at ready\n",
                qPrintable(figures.value(QStringLiteral("ready_ms"))),
                qPrintable(figures.value(QStringLiteral("ready_hwm_kb"))));
    EXPECT_EQ(
        PropertyList::readDictionary(hostPath(kSettings)).value(QStringLiteral("shouldTrash")).toLongLong(),
        0);
    const QImage scaled = shot(QStringLiteral("rest-2"));
    const QImage normal = shot(QStringLiteral("rest-1"));
    EXPECT_NEAR(scaled.width(), 2 * normal.width(), 4);
    EXPECT_FALSE(shot(QStringLiteral("prefs-2")).isNull());
}

// On a fresh install the requirement goes on and off again, for a plain user and
// for a member of the administrators' group the install step gives the machine's
// Preferences: she switches it on as herself, and what takes the password is
// written by the administrator's runner. One password each.
TEST_F(MainWindowRepairTest, ThePasswordRequirementSwitchesBothWaysForUsersAndAdministrators)
{
    const QString machine = QStringLiteral("/Library/Preferences/com.lanternfish.Mendwell.plist");
    for (const bool administrator : {false, true}) {
        SCOPED_TRACE(administrator ? "administrator" : "plain user");
        polkit.setUserGroup(administrator ? QStringLiteral("sudo") : QString());
        QFile::remove(hostPath(machine));
        int prompts = 0;
        const QMap<QString, QString> figures = act(QStringLiteral("adminpass"), 1, 1, &prompts);
        EXPECT_EQ(figures.value(QStringLiteral("status")), QStringLiteral("0"))
            << runOutput("adminpass", 1, "err").data();
        EXPECT_EQ(prompts, 1);
        for (const int state : {1, 0})
            EXPECT_EQ(
                PropertyList::readDictionary(hostPath(kRuns + QStringLiteral("/admin-%1.plist").arg(state))),
                (QVariantMap{{QStringLiteral("requireAdminPassword"), state}}));
        EXPECT_EQ(figures.value(QStringLiteral("owner_1")), administrator ? "anna" : "root");
        EXPECT_EQ(figures.value(QStringLiteral("owner_0")), QStringLiteral("root"));
    }
}

// Quit does not wait for the repair's thread, which itself waits on the main
// thread for every console line.
TEST_F(MainWindowRepairTest, QuittingDuringARepairEndsAtOnce)
{
    const QMap<QString, QString> figures = act(QStringLiteral("quitduring"), 1, 1);
    EXPECT_EQ(figures.value(QStringLiteral("status")), QStringLiteral("0"))
        << runOutput("quitduring", 1, "err").data();
    const QByteArray log = readFile(kLog);
    EXPECT_TRUE(log.contains("Terminating processes...")) << log.constData();
    EXPECT_FALSE(log.contains("Processing complete.")) << log.constData();
}

// sudo Mendwell on a real display: refused before any window, with the text.
TEST_F(MainWindowTest, StartedAsRootTheWindowIsRefusedWithItsReason)
{
    const QMap<QString, QString> figures = act(QStringLiteral("guard"), 1, true);
    EXPECT_EQ(figures.value(QStringLiteral("windows")), QStringLiteral("0"));
    EXPECT_EQ(figures.value(QStringLiteral("status")), QStringLiteral("1"));
    EXPECT_EQ(runOutput("guard", 1, "err"),
              "Mendwell does not run its window as root; start it as yourself, or run it with -repair for "
              "the command-line repair.\n");
    EXPECT_FALSE(box.exists(QStringLiteral("/root/Library")));
    EXPECT_FALSE(box.exists(QStringLiteral("/Users/anna/Library")));
}

TEST_F(MainWindowTest, WithoutItsInfrastructureTheProgramSaysSoAndEnds)
{
    ASSERT_TRUE(QFile::remove(
        box.hostPath(QStringLiteral("/Applications/Mendwell.app/Contents/Resources/AppInfrastructure.ui"))));
    const QMap<QString, QString> figures = act(QStringLiteral("noinfra"), 1);
    // One window, the panel; answering it ends the program.
    EXPECT_EQ(figures.value(QStringLiteral("windows")), QStringLiteral("1"));
    EXPECT_EQ(figures.value(QStringLiteral("status")), QStringLiteral("0"))
        << runOutput("noinfra", 1, "err").data();
    const char *critical =
        "Critical error: unable to load application infrastructure. You must reinstall the application.";
    EXPECT_TRUE(runOutput("noinfra", 1, "err").contains(critical)) << runOutput("noinfra", 1, "err").data();
    EXPECT_TRUE(box.readFile(kLog).contains(critical));
    EXPECT_FALSE(shot(QStringLiteral("panel-1")).isNull());
}

TEST_F(MainWindowTest, PreferencesAndHelpPagesAsTheUserSeesThem)
{
    const QString info = box.hostPath(QStringLiteral("/Applications/Mendwell.app/Contents/Info.plist"));
    QVariantMap bundleInfo = PropertyList::readDictionary(info);
    ASSERT_EQ(bundleInfo.remove(QStringLiteral("HXShortName")), 1);
    ASSERT_TRUE(PropertyList::writeXmlFile(info, bundleInfo));
    const QString record = QStringLiteral("/Users/anna/browser.record");
    ASSERT_TRUE(box.writeProgram(QStringLiteral("/Library/Test/xdg-open"),
                                 "#!/bin/sh\nprintf '%s\\n' \"$*\" >>" + record.toUtf8() + "\n"));
    box.overlay(box.hostPath(QStringLiteral("/Library/Test/xdg-open")), QStringLiteral("/usr/bin/xdg-open"));

    const QMap<QString, QString> figures = act(QStringLiteral("settings"), 1);
    ASSERT_EQ(figures.value(QStringLiteral("status")), QStringLiteral("0"))
        << runOutput("settings", 1, "err").data();
    // Without the install step's folder and without anyone to give the password,
    // the requirement is not stored: a sheet says so (refused-1.png), the box stays off.
    EXPECT_EQ(figures.value(QStringLiteral("windows")), QStringLiteral("3"));
    EXPECT_FALSE(figures.contains(QStringLiteral("stored")));
    EXPECT_TRUE(box.readFile(kLog).contains("Unable to save the administrator password setting to "
                                            "/Library/Preferences/com.lanternfish.Mendwell.plist\n"));
    // The statistics box started off without a file and made one with its key alone.
    EXPECT_EQ(PropertyList::readDictionary(
                  box.hostPath(QStringLiteral("/Users/anna/Library/Preferences/com.lanternfish.qc.plist"))),
              (QVariantMap{{QStringLiteral("logQC"), true}}));
    EXPECT_EQ(box.readFile(record),
              "https://support.lanternfish.example/kestrelkit/bugreport?app=kestrelkit&version=1.0.0\n");
    EXPECT_FALSE(shot(QStringLiteral("general-1")).isNull());
    EXPECT_FALSE(shot(QStringLiteral("refused-1")).isNull());
}

TEST_F(MainWindowTest, TheMediaCacheBoxIsRememberedAndItsPreviewChangesNothing)
{
    const QString cache =
        QStringLiteral("/Users/anna/Library/Application Support/Adobe/Common/Media Cache Files");
    for (const char *name : {"clip 1.cfa", "clip 1.pek", "notes.txt"})
        ASSERT_TRUE(box.writeFile(cache + QLatin1Char('/') + QLatin1String(name), "cache\n", true));
    // A large conformed audio file, sparse: the preview adds up sizes, not blocks.
    ASSERT_EQ(::truncate(QFile::encodeName(box.hostPath(cache + QStringLiteral("/clip 1.cfa"))).constData(),
                         1500000000),
              0);
    const QMap<QString, QString> figures = act(QStringLiteral("mediacache"), 1);
    ASSERT_EQ(figures.value(QStringLiteral("status")), QStringLiteral("0"))
        << runOutput("mediacache", 1, "err").data();
    EXPECT_EQ(
        PropertyList::readDictionary(box.hostPath(kSettings)).value(QStringLiteral("shouldTrashMediaCache")),
        QVariant(qint64{1}));
    EXPECT_EQ(QFileInfo(box.hostPath(cache + QStringLiteral("/clip 1.cfa"))).size(), 1500000000);
    EXPECT_TRUE(QFileInfo::exists(box.hostPath(cache + QStringLiteral("/clip 1.pek"))));
    EXPECT_FALSE(shot(QStringLiteral("mediacache-box-1")).isNull());
    EXPECT_FALSE(shot(QStringLiteral("mediacache-preview-1")).isNull());
}

TEST_F(MainWindowTest, ARequiredPasswordThatIsNotGivenEndsTheProgram)
{
    // anna cannot authenticate here: there is no agent to ask her.
    ASSERT_TRUE(box.makeFolder(QStringLiteral("/Library/Preferences")));
    ASSERT_TRUE(PropertyList::writeXmlFile(
        box.hostPath(QStringLiteral("/Library/Preferences/com.lanternfish.Mendwell.plist")),
        QVariantMap{{QStringLiteral("requireAdminPassword"), 1}}));
    const QMap<QString, QString> figures = act(QStringLiteral("guard"), 1);
    EXPECT_EQ(figures.value(QStringLiteral("status")), QStringLiteral("0"))
        << runOutput("guard", 1, "err").data();
    EXPECT_EQ(figures.value(QStringLiteral("windows")), QStringLiteral("0"));
}

}  // namespace

int main(int argc, char **argv)
{
    QCoreApplication application(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
