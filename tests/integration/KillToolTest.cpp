// killtool as a repair runs it, in the sandbox: stand-ins (tests/programs/adobestandin.cpp)
// run under the real executables' names in the real Adobe places, as root, as
// anna (the console user) and as bert (another user), beside look-alikes and
// programs that only look like Adobe's by their place and must live on. The
// sandbox has a process namespace of its own, so one driver script per sandbox
// run starts the stand-ins, runs killtool and reports its status, its time and
// which stand-ins survived. The times and the attack's counts are printed, so a
// run by hand shows them.

#include "app/audit/HXToolReport.h"
#include "tests/support/Sandbox.h"
#include "tests/support/TestFiles.h"

#include <gtest/gtest.h>

#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>

#include <cstdio>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

using namespace Qt::Literals::StringLiterals;

namespace {

const QString kTool = u"/Applications/Mendwell.app/Contents/MacOS/killtool"_s;
const QString kDriver = u"/Applications/TestPrograms/killdriver.sh"_s;

// killdriver.sh RUNNER [USER MODE PATH]...: RUNNER is root, anna,
// root-without-kill (root without the right to signal other users' processes)
// or root-without-kill-or-setuid (nor to take another user's identity); each
// stand-in runs as USER (root, anna, bert, or mixed: real user anna,
// effective and saved user bert), MODE is term, ignore (it ignores SIGTERM),
// deleted (its file is removed once it runs) or replaced (its file is replaced
// by a copy once it runs, as an update replaces a program).
const char kDriverScript[] = R"sh(set -u
runner=$1
shift
ready=/Users/anna/.standins
# Every stand-in's user creates its ready file here.
rm -rf "$ready" && mkdir -m 1777 "$ready" || exit 1

alive() {
    state=$(sed -n 's/.*) \(.\).*/\1/p' "/proc/$1/stat" 2>/dev/null)
    [ -n "$state" ] && [ "$state" != Z ]
}
as() {
    user=$1
    shift
    case $user in
    anna | bert) exec setpriv --reuid="$user" --regid="$user" --init-groups -- "$@" ;;
    mixed) exec setpriv --ruid=anna --euid=bert --regid=anna --init-groups -- "$@" ;;
    root-without-kill) exec setpriv --inh-caps=-kill --bounding-set=-kill -- "$@" ;;
    root-without-kill-or-setuid)
        exec setpriv --inh-caps=-kill,-setuid --bounding-set=-kill,-setuid -- "$@" ;;
    *) exec "$@" ;;
    esac
}

n=0
while [ $# -ge 3 ]; do
    n=$((n + 1))
    option=
    [ "$2" = ignore ] && option=--ignore-term
    (as "$1" "$3" $option "$ready/$n") &
    pid=$!
    eval "pid$n=\$pid path$n=\$3"
    # killtool starts only once every stand-in runs under its own name.
    while [ ! -e "$ready/$n" ]; do
        alive "$pid" || { echo "could not start $3"; exit 1; }
        sleep 0.01
    done
    [ "$2" = deleted ] && rm "$3"
    [ "$2" = replaced ] && cp "$3" "$3.new" && mv "$3.new" "$3"
    shift 3
done

start=$(date +%s%N)
(as "$runner" /Applications/Mendwell.app/Contents/MacOS/killtool) >/Library/killtool.out 2>/Library/killtool.err
status=$?
end=$(date +%s%N)
echo "killtool=$status ms=$(((end - start) / 1000000))"
i=1
while [ "$i" -le "$n" ]; do
    eval "pid=\$pid$i path=\$path$i"
    if alive "$pid"; then
        echo "survived: $path"
        kill -KILL "$pid"
    fi
    i=$((i + 1))
done
)sh";

const QString kAttackDriver = u"/Applications/TestPrograms/renameattack.sh"_s;

// renameattack.sh ATTEMPTS SECONDS GENUINE: each attempt, root runs anna's own
// AdobeIPCBroker from /Users/anna/Stage and root's genuine one at GENUINE; then
// anna renames Stage to "Adobe Evil" and back as fast as she can while killtool
// runs. An escape is an attempt in which her program, run as root, was ended;
// a miss one in which the genuine one was not. At most ATTEMPTS, stopping
// early after SECONDS.
const char kAttackScript[] = R"sh(set -u
attempts=$1
seconds=$2
genuine=$3
ready=/Users/anna/.standins
stop=/Users/anna/.stop
plain=/Users/anna/Stage
adobe="/Users/anna/Adobe Evil"
rm -rf "$ready" && mkdir "$ready" && chown anna "$ready" || exit 1

alive() {
    state=$(sed -n 's/.*) \(.\).*/\1/p' "/proc/$1/stat" 2>/dev/null)
    [ -n "$state" ] && [ "$state" != Z ]
}

start=$(date +%s)
i=0
escapes=0
misses=0
while [ "$i" -lt "$attempts" ] && [ $(($(date +%s) - start)) -lt "$seconds" ]; do
    i=$((i + 1))
    [ -d "$plain" ] || mv "$adobe" "$plain" || exit 1
    "$plain/AdobeIPCBroker" "$ready/hers$i" &
    hers=$!
    "$genuine" "$ready/genuine$i" &
    real=$!
    n=0
    while [ ! -e "$ready/hers$i" ] || [ ! -e "$ready/genuine$i" ]; do
        n=$((n + 1))
        [ "$n" -le 500 ] || { echo "could not start the stand-ins"; exit 1; }
        sleep 0.01
    done
    rm -f "$stop"
    setpriv --reuid=anna --regid=anna --init-groups -- /bin/sh -c '
        n=0
        while [ ! -e "$1" ] && [ "$n" -lt 20000 ]; do
            mv "$2" "$3" && mv "$3" "$2"
            n=$((n + 1))
        done' renamer "$stop" "$plain" "$adobe" &
    renamer=$!
    /Applications/Mendwell.app/Contents/MacOS/killtool >>/Library/killtool.out 2>>/Library/killtool.err
    touch "$stop"
    wait "$renamer"
    alive "$hers" || escapes=$((escapes + 1))
    alive "$real" && misses=$((misses + 1))
    kill -KILL "$hers" "$real" 2>/dev/null
    wait "$hers" "$real" 2>/dev/null
done
echo "attempts=$i escapes=$escapes misses=$misses"
)sh";

const QString kBroker = QStringLiteral(
    "/Library/Application Support/Adobe/Adobe Desktop Common/IPCBox/AdobeIPCBroker.app/Contents/MacOS/"
    "AdobeIPCBroker");
const QString kHeadless = QStringLiteral(
    "/Applications/Adobe Premiere Pro 2024/Adobe Premiere Pro 2024.app/Contents/MacOS/PProHeadless");
const QString kDesktopService = QStringLiteral(
    "/Library/Application Support/Adobe/Adobe Desktop Common/ADS/Adobe Desktop Service.app/Contents/MacOS/"
    "Adobe Desktop Service");
const QString kCoreSync = QStringLiteral("/Library/Application Support/Adobe/Adobe Desktop "
                                         "Common/CoreSync/Core Sync.app/Contents/MacOS/Core Sync");
const QString kExperience = QStringLiteral(
    "/Applications/Utilities/Adobe Creative Cloud Experience/CCXProcess/CCXProcess.app/Contents/MacOS/"
    "CCXProcess");

struct StandIn {
    const char *user;
    const char *mode;
    QString path;
};

struct Outcome {
    int status = -1;
    int milliseconds = -1;
    QStringList survivors;
    QByteArray out;
    QByteArray err;
    std::string log;
};

// The ids of the account NAME; root's when there is none.
std::pair<uid_t, gid_t> idsOf(const char *name)
{
    const passwd *entry = ::getpwnam(name);
    return entry ? std::pair(entry->pw_uid, entry->pw_gid) : std::pair(uid_t(0), gid_t(0));
}

class KillToolTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        SKIP_WITHOUT_SANDBOX();
        ASSERT_TRUE(box.writeFile(kDriver, kDriverScript));
    }

    // Gives the sandbox's PATH (file or folder) to the account OWNER with MODE.
    void own(const QString &path, const char *owner, mode_t mode) const
    {
        const auto [uid, gid] = idsOf(owner);
        EXPECT_TRUE(disk::chown(box.hostPath(path), uid, gid) && disk::chmod(box.hostPath(path), mode))
            << path.toStdString();
    }

    // Installs the stand-in at PATH, owned by OWNER with MODE, in folders of anna's
    // under her home and of root's elsewhere.
    void install(const QString &path, const char *owner = "root", mode_t mode = 0755) const
    {
        const QString folder = QFileInfo(path).path();
        EXPECT_TRUE(box.makeFolder(folder, folder.startsWith(u"/Users/anna/"_s)));
        EXPECT_TRUE(
            QFile::copy(QStringLiteral(MENDWELL_TEST_PROGRAMS_DIR "/adobestandin"), box.hostPath(path)));
        own(path, owner, mode);
    }

    Outcome run(const char *runner, const std::vector<StandIn> &standIns, const QStringList &environment = {})
    {
        QStringList arguments{u"/bin/sh"_s, kDriver, QLatin1String(runner)};
        for (const StandIn &standIn : standIns) {
            if (!box.exists(standIn.path))
                install(standIn.path);
            arguments << QLatin1String(standIn.user) << QLatin1String(standIn.mode) << standIn.path;
        }
        const ProcessResult result = box.runAsRoot(arguments, environment);
        Outcome outcome;
        outcome.log = result.out.toStdString() + result.err.toStdString();
        const QString report = QString::fromUtf8(result.out);
        const QRegularExpressionMatch match =
            QRegularExpression(u"^killtool=(\\d+) ms=(\\d+)$"_s, QRegularExpression::MultilineOption)
                .match(report);
        if (match.hasMatch()) {
            outcome.status = match.captured(1).toInt();
            outcome.milliseconds = match.captured(2).toInt();
        }
        for (const QString &line : report.split(u'\n'))
            if (line.startsWith(u"survived: "_s))
                outcome.survivors.append(line.mid(10));
        outcome.out = box.readFile(u"/Library/killtool.out"_s);
        outcome.err = box.readFile(u"/Library/killtool.err"_s);
        std::printf("killtool as %s: status %d after %d ms\n", runner, outcome.status, outcome.milliseconds);
        return outcome;
    }

    Sandbox box;
};

// The report lines of killtool's standard output as "name SIGNAL", sorted.
QStringList endedBySignal(const QByteArray &out)
{
    QStringList ended;
    for (const QVariant &process : HXToolReport::endedProcessesIn(out))
        ended.append(process.toMap().value("name").toString() + ' ' +
                     process.toMap().value("signal").toString());
    std::sort(ended.begin(), ended.end());
    return ended;
}

}  // namespace

TEST_F(KillToolTest, EndsTheAdobeBackgroundProcessesAndLeavesLookAlikesRunning)
{
    const QString helper =
        u"/Library/Application Support/Adobe/Adobe Desktop Common/IPCBox/AdobeIPCBrokerHelper"_s;
    const QString annasBroker = u"/Users/anna/bin/AdobeIPCBroker"_s;
    const QString outsideService = u"/Applications/Tools/Adobe Desktop Service"_s;
    const Outcome outcome = run("root", {{"root", "term", kBroker},
                                         {"root", "term", kHeadless},
                                         {"anna", "ignore", kDesktopService},
                                         {"anna", "deleted", kCoreSync},
                                         {"anna", "term", kExperience},
                                         {"root", "term", helper},
                                         {"anna", "term", annasBroker},
                                         {"root", "term", outsideService}});
    EXPECT_EQ(outcome.status, 0) << outcome.log << outcome.err.constData();
    EXPECT_EQ(outcome.survivors, (QStringList{helper, annasBroker, outsideService}));
    // Each process ended is reported once, with the signal it needed.
    EXPECT_EQ(endedBySignal(outcome.out),
              QStringList({"Adobe Desktop Service KILL", "AdobeIPCBroker TERM", "CCXProcess TERM",
                           "Core Sync TERM", "PProHeadless TERM"}))
        << outcome.out.constData();
    EXPECT_EQ(outcome.err, QByteArray());
}

TEST_F(KillToolTest, WhatItMayNotEndSurvivesAndIsNamedAndArgumentsAreRefused)
{
    // Run by anna it ends her process; root's it cannot even see.
    const Outcome asAnna = run("anna", {{"anna", "term", kHeadless}, {"root", "term", kBroker}});
    EXPECT_EQ(asAnna.status, 0) << asAnna.log << asAnna.err.constData();
    EXPECT_EQ(asAnna.survivors, QStringList{kBroker});

    // Anna's process is signalled with her rights, not root's: root without the
    // right to signal other users' processes still ends it.
    const Outcome withoutKill =
        run("root-without-kill", {{"anna", "term", kExperience}, {"root", "term", kHeadless}});
    EXPECT_EQ(withoutKill.status, 0) << withoutKill.log << withoutKill.err.constData();
    EXPECT_EQ(withoutKill.survivors, QStringList());
    EXPECT_EQ(endedBySignal(withoutKill.out), QStringList({"CCXProcess TERM", "PProHeadless TERM"}))
        << withoutKill.out.constData();

    // Root that may neither signal her process nor become her finds it, cannot
    // end it, and says so on one line; its own process still ends.
    const Outcome withoutSetuid =
        run("root-without-kill-or-setuid", {{"anna", "term", kExperience}, {"root", "term", kHeadless}});
    EXPECT_EQ(withoutSetuid.status, 1) << withoutSetuid.log;
    EXPECT_EQ(withoutSetuid.survivors, QStringList{kExperience});
    EXPECT_TRUE(QRegularExpression(u"^killtool: still running: CCXProcess \\(pid \\d+\\)\n$"_s)
                    .match(QString::fromUtf8(withoutSetuid.err))
                    .hasMatch())
        << withoutSetuid.err.constData();
    EXPECT_EQ(endedBySignal(withoutSetuid.out), QStringList{"PProHeadless TERM"})
        << withoutSetuid.out.constData();

    for (const QStringList &arguments : {QStringList{"-h"}, QStringList{""}, QStringList{"a", "b"}}) {
        const ProcessResult bad = box.runAsRoot(QStringList{kTool} + arguments);
        EXPECT_EQ(bad.exitCode, 2);
        EXPECT_TRUE(bad.err.startsWith("usage: ") && bad.err.count('\n') == 1) << bad.err.constData();
        EXPECT_EQ(bad.out, QByteArray());
    }
}

// Whoever can rename a file can give it an Adobe name and place: only the
// console user's own processes and programs only root can have placed are ended.
TEST_F(KillToolTest, EndsOnlyTheConsoleUsersProcessesAndProgramsOnlyRootCanPlace)
{
    if (::getpwnam("bert") == nullptr)
        GTEST_SKIP() << "the test account bert does not exist (scripts/setup-tests.sh makes it)";
    // Hers, and root's file in her folders.
    const QString hers = u"/Users/anna/Adobe Evil/AdobeIPCBroker"_s;
    const QString hersToo = u"/Users/anna/Adobe Evil/Core Sync"_s;
    const QString herOwn = u"/Users/anna/Adobe Evil/dynamiclinkmanager"_s;
    const QString rootsInHers = u"/Users/anna/Library/Application Support/Adobe/CCXProcess"_s;
    for (const QString &path : {hers, hersToo, herOwn})
        install(path, "anna");
    install(rootsInHers);
    // Another user's, in his own folders.
    const QString others = u"/Users/bert/Library/Application Support/Adobe/CCLibrary"_s;
    install(others, "bert");
    for (QString folder = QFileInfo(others).path(); folder != u"/Users"_s; folder = QFileInfo(folder).path())
        own(folder, "bert", 0755);
    // Root's, where someone else may add or rename a name on the way.
    const QString support = u"/Library/Application Support/Adobe/"_s;
    const QString groupWritable = support + u"Group Writable/PProHeadless"_s;
    const QString sticky = support + u"Shared/AdobeCRDaemon"_s;
    const QString writableFile = support + u"Common/TeamProjectsLocalHub"_s;
    const QString replaced = support + u"Updated/dynamiclinkmediaserver"_s;
    install(groupWritable);
    own(QFileInfo(groupWritable).path(), "root", 0775);
    install(sticky);
    own(QFileInfo(sticky).path(), "root", 01777);
    install(writableFile, "root", 0757);
    install(replaced);

    const Outcome outcome = run("root", {{"root", "term", hers},
                                         {"mixed", "term", hersToo},
                                         {"root", "term", rootsInHers},
                                         {"bert", "term", others},
                                         {"root", "term", groupWritable},
                                         {"root", "term", sticky},
                                         {"root", "term", writableFile},
                                         {"root", "replaced", replaced},
                                         {"anna", "term", herOwn},
                                         {"bert", "term", kCoreSync},
                                         {"root", "term", kBroker}});
    EXPECT_EQ(outcome.status, 0) << outcome.log << outcome.err.constData();
    EXPECT_EQ(outcome.survivors, (QStringList{hers, hersToo, rootsInHers, others, groupWritable, sticky,
                                              writableFile, replaced}));
    EXPECT_EQ(endedBySignal(outcome.out),
              QStringList({"AdobeIPCBroker TERM", "Core Sync TERM", "dynamiclinkmanager TERM"}))
        << outcome.out.constData();
    EXPECT_EQ(outcome.err, QByteArray());
}

// The console user as each launch path names him: SUDO_USER as root directly
// (the sandbox's default), PKEXEC_UID through the administrator's runner, and
// nobody without either (the sandbox has no seat), when only root's programs end.
TEST_F(KillToolTest, TheConsoleUserComesFromHowItWasStarted)
{
    const QString hers = u"/Users/anna/Adobe Evil/CCLibrary"_s;
    install(hers, "anna");
    const std::vector<StandIn> standIns{{"anna", "term", hers}, {"root", "term", kBroker}};

    const QString annasUid = QString::number(Sandbox::userId());
    const Outcome runner = run("root", standIns, {"SUDO_USER=", "PKEXEC_UID=" + annasUid});
    EXPECT_EQ(runner.status, 0) << runner.log << runner.err.constData();
    EXPECT_EQ(runner.survivors, QStringList());
    EXPECT_EQ(endedBySignal(runner.out), QStringList({"AdobeIPCBroker TERM", "CCLibrary TERM"}))
        << runner.out.constData();

    const Outcome nobody = run("root", standIns, {"SUDO_USER="});
    EXPECT_EQ(nobody.status, 0) << nobody.log << nobody.err.constData();
    EXPECT_EQ(nobody.survivors, QStringList{hers});
    EXPECT_EQ(endedBySignal(nobody.out), QStringList{"AdobeIPCBroker TERM"}) << nobody.out.constData();
}

// Her program, run as root, renamed into an Adobe-like folder of hers while
// killtool looks at it, is never ended; root's genuine one each time is.
TEST_F(KillToolTest, RenamingHerProgramIntoAnAdobeFolderWhileRootRunsItNeverGetsItEnded)
{
    ASSERT_TRUE(box.writeFile(kAttackDriver, kAttackScript));
    install(u"/Users/anna/Stage/AdobeIPCBroker"_s, "anna");
    install(kBroker);

    constexpr int kAttempts = 50;
    const ProcessResult result =
        box.runAsRoot({u"/bin/sh"_s, kAttackDriver, QString::number(kAttempts), u"180"_s, kBroker});
    const QRegularExpressionMatch counts =
        QRegularExpression(u"^attempts=(\\d+) escapes=(\\d+) misses=(\\d+)$"_s,
                           QRegularExpression::MultilineOption)
            .match(QString::fromUtf8(result.out));
    ASSERT_TRUE(counts.hasMatch()) << result.out.constData() << result.err.constData();
    const int attempts = counts.captured(1).toInt();
    const int escapes = counts.captured(2).toInt();
    const int misses = counts.captured(3).toInt();
    std::printf("rename attack: %d attempts, %d escapes, %d genuine processes left running\n", attempts,
                escapes, misses);
    EXPECT_GE(attempts, 10) << "too few attempts in the time allowed";
    EXPECT_EQ(escapes, 0);
    EXPECT_EQ(misses, 0);
    // Everything it reported ending was root's genuine program.
    const QVariantList ended = HXToolReport::endedProcessesIn(box.readFile(u"/Library/killtool.out"_s));
    EXPECT_EQ(ended.size(), attempts);
    for (const QVariant &process : ended)
        EXPECT_EQ(process.toMap().value("path").toString(), kBroker);
    EXPECT_EQ(box.readFile(u"/Library/killtool.err"_s), QByteArray());
}
