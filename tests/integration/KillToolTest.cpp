// killtool as a repair runs it, in the sandbox: stand-ins (tests/programs/adobestandin.cpp)
// run under the real executables' names in the real Adobe places, as root and as
// anna, beside look-alikes that must live on. The sandbox has a process namespace
// of its own, so one driver script per sandbox run starts the stand-ins, runs
// killtool and reports its status, its time and which stand-ins survived. The
// times are printed, so a run by hand shows them.

#include "app/audit/HXToolReport.h"
#include "tests/support/Sandbox.h"
#include "tests/support/TestFiles.h"

#include <gtest/gtest.h>

#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>

#include <cstdio>
#include <vector>

namespace {

const QString kTool = QStringLiteral("/Applications/Mendwell.app/Contents/MacOS/killtool");
const QString kDriver = QStringLiteral("/Applications/TestPrograms/killdriver.sh");

// killdriver.sh RUNNER [USER MODE PATH]...: RUNNER is root, anna or
// root-without-kill (root without the right to signal other users' processes);
// each stand-in runs as USER (root or anna), MODE is term, ignore (it ignores
// SIGTERM) or deleted (its file is removed once it runs).
const char kDriverScript[] = R"sh(set -u
runner=$1
shift
ready=/Users/anna/.standins
rm -rf "$ready" && mkdir "$ready" && chown anna "$ready" || exit 1

alive() {
    state=$(sed -n 's/.*) \(.\).*/\1/p' "/proc/$1/stat" 2>/dev/null)
    [ -n "$state" ] && [ "$state" != Z ]
}
as() {
    user=$1
    shift
    case $user in
    anna) exec setpriv --reuid=anna --regid=anna --init-groups -- "$@" ;;
    root-without-kill) exec setpriv --inh-caps=-kill --bounding-set=-kill -- "$@" ;;
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
    // One path a line, so a failure reads plainly.
    std::string survivors;
    QByteArray out;
    QByteArray err;
    std::string log;
};

class KillToolTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        SKIP_WITHOUT_SANDBOX();
        ASSERT_TRUE(box.writeFile(kDriver, kDriverScript));
    }

    Outcome run(const char *runner, const std::vector<StandIn> &standIns)
    {
        QStringList arguments{QStringLiteral("/bin/sh"), kDriver, QLatin1String(runner)};
        for (const StandIn &standIn : standIns) {
            const QString host = box.hostPath(standIn.path);
            if (!QFileInfo::exists(host)) {
                const QString folder = QFileInfo(standIn.path).path();
                EXPECT_TRUE(box.makeFolder(folder, folder.startsWith(QLatin1String("/Users/anna/"))));
                EXPECT_TRUE(QFile::copy(QStringLiteral(MENDWELL_TEST_PROGRAMS_DIR "/adobestandin"), host));
            }
            arguments << QLatin1String(standIn.user) << QLatin1String(standIn.mode) << standIn.path;
        }
        const ProcessResult result = box.runAsRoot(arguments);
        Outcome outcome;
        outcome.log = result.out.toStdString() + result.err.toStdString();
        const QString report = QString::fromUtf8(result.out);
        const QRegularExpressionMatch match =
            QRegularExpression(QStringLiteral("^killtool=(\\d+) ms=(\\d+)$"),
                               QRegularExpression::MultilineOption)
                .match(report);
        if (match.hasMatch()) {
            outcome.status = match.captured(1).toInt();
            outcome.milliseconds = match.captured(2).toInt();
        }
        for (const QString &line : report.split(QLatin1Char('\n')))
            if (line.startsWith(QLatin1String("survived: ")))
                outcome.survivors += line.mid(10).toStdString() + '\n';
        outcome.out = box.readFile(QStringLiteral("/Library/killtool.out"));
        outcome.err = box.readFile(QStringLiteral("/Library/killtool.err"));
        std::printf("killtool as %s: status %d after %d ms\n", runner, outcome.status, outcome.milliseconds);
        return outcome;
    }

    Sandbox box;
};

}  // namespace

namespace {

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
        QStringLiteral("/Library/Application Support/Adobe/Adobe Desktop Common/IPCBox/AdobeIPCBrokerHelper");
    const QString annasBroker = QStringLiteral("/Users/anna/bin/AdobeIPCBroker");
    const QString outsideService = QStringLiteral("/Applications/Tools/Adobe Desktop Service");
    const Outcome outcome = run("root", {{"root", "term", kBroker},
                                         {"root", "term", kHeadless},
                                         {"anna", "ignore", kDesktopService},
                                         {"anna", "deleted", kCoreSync},
                                         {"anna", "term", kExperience},
                                         {"root", "term", helper},
                                         {"anna", "term", annasBroker},
                                         {"root", "term", outsideService}});
    EXPECT_EQ(outcome.status, 0) << outcome.log << outcome.err.constData();
    EXPECT_EQ(outcome.survivors, (helper + '\n' + annasBroker + '\n' + outsideService + '\n').toStdString());
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
    EXPECT_EQ(asAnna.survivors, kBroker.toStdString() + '\n');

    // Root without the right to signal anna's process finds it, cannot end it,
    // and says so on one line; its own process still ends.
    const Outcome withoutKill =
        run("root-without-kill", {{"anna", "term", kExperience}, {"root", "term", kHeadless}});
    EXPECT_EQ(withoutKill.status, 1) << withoutKill.log;
    EXPECT_EQ(withoutKill.survivors, kExperience.toStdString() + '\n');
    EXPECT_TRUE(QRegularExpression(QStringLiteral("^killtool: still running: CCXProcess \\(pid \\d+\\)\n$"))
                    .match(QString::fromUtf8(withoutKill.err))
                    .hasMatch())
        << withoutKill.err.constData();
    EXPECT_EQ(endedBySignal(withoutKill.out), QStringList{"PProHeadless TERM"})
        << withoutKill.out.constData();

    for (const QStringList &arguments : {QStringList{"-h"}, QStringList{""}, QStringList{"a", "b"}}) {
        const ProcessResult bad = box.runAsRoot(QStringList{kTool} + arguments);
        EXPECT_EQ(bad.exitCode, 2);
        EXPECT_TRUE(bad.err.startsWith("usage: ") && bad.err.count('\n') == 1) << bad.err.constData();
        EXPECT_EQ(bad.out, QByteArray());
    }
}
