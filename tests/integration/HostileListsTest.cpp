// Property lists anna plants where root reads them: nested 200,000 levels deep
// (XML and binary), beyond the size bound, referring to themselves, doubling at
// every level, cut short, a FIFO nobody writes, a link to a file only root may
// read. Every reader root runs meets every class: the run records (mendwellctl as
// root and as anna), the LaunchServices list, the launch stamps, the suite's
// global preferences and the Info.plist of an application anna runs. Nothing may
// crash, wait on the FIFO, follow the link or use more memory than a cap that an
// unbounded read exceeds; the repair still ends with its verdict.

#include "system/PropertyList.h"
#include "tests/support/PlistBytes.h"
#include "tests/support/Sandbox.h"
#include "tests/support/TestFiles.h"

#include <QDateTime>
#include <QFile>
#include <QJsonDocument>
#include <QRegularExpression>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <sys/stat.h>

using namespace Qt::Literals::StringLiterals;

namespace {

const QString kRecords = u"/Users/anna/Library/Logs/Lanternfish/Repairs"_s;
const QString kPreferences = u"/Users/anna/Library/Preferences"_s;
const QString kApplication = u"/Users/anna/Applications/Hostile.app"_s;
const QString kHostile = u"/Users/anna/.hostile"_s;
const QString kDriver = u"/Applications/TestPrograms/hostile.sh"_s;
const QString kCtl = u"/Applications/Mendwell.app/Contents/MacOS/mendwellctl"_s;
const QString kMachineLogs = u"/Library/Logs/Lanternfish"_s;
const QString kGoodRun = u"20240101-000000-000-1"_s;
const QString kHostileRun = u"20990101-000000-000-1"_s;
const QByteArray kSecret = "only-for-root";

// An address-space cap far above what the programs need (a few hundred MiB of
// mappings, thread stacks included) and far below what the unbounded readers took.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
const QString kCap;  // sanitizers reserve terabytes of address space
#else
const QString kCap = u"1073741824"_s;
#endif

// hostile.sh CLASS TARGET [app] COMMAND...: anna puts the CLASS list at TARGET,
// then COMMAND runs under the cap (with "app", while anna runs Hostile.app).
// Prints "status N" and the peak resident memory last on standard error.
const char kDriverScript[] = R"sh(set -u
class=$1 target=$2
shift 2
as_anna() {
    if [ "$(id -u)" = 0 ]; then setpriv --reuid=anna --regid=anna --init-groups -- "$@"; else "$@"; fi
}
as_anna sh -c '
    rm -f "$2"
    case $1 in
        fifo) mkfifo "$2" ;;
        link) ln -s /root/secret.plist "$2" ;;
        huge) { cat /Users/anna/.hostile/huge; yes "<true/>"; } | head -c 16777217 >"$2" ;;
        *) cp "/Users/anna/.hostile/$1" "$2" ;;
    esac' plant "$class" "$target"
if [ "$1" = app ]; then
    shift
    as_anna /Users/anna/Applications/Hostile.app/Contents/MacOS/Hostile 600 &
    sleep 0.2
fi
times=$(mktemp /Library/TestRuns/time.XXXXXX)
if [ -n "$CAP" ]; then
    /usr/bin/time -f "peak %M KiB" -o "$times" prlimit --as="$CAP" -- "$@"
else
    /usr/bin/time -f "peak %M KiB" -o "$times" "$@"
fi
status=$?
grep peak "$times" >&2
rm -f "$times"
echo "status $status" >&2
)sh";

struct Outcome {
    int attempts = 0;
    int crashes = 0;
    qint64 peakKiB = 0;
};

class HostileListsTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        SKIP_WITHOUT_SANDBOX();
        ASSERT_TRUE(box.writeProgram(kDriver, kDriverScript));
        ASSERT_TRUE(box.makeFolder(u"/Library/TestRuns"_s, false, 01777));
        ASSERT_TRUE(box.makeFolder(kMachineLogs));
        ASSERT_TRUE(box.makeFolder(kRecords, true));
        ASSERT_TRUE(box.makeFolder(kPreferences, true));

        constexpr int kDeep = 200000;
        const QByteArray realBinary = binaryOf(PropertyList::toXml(record(kHostileRun, u"real"_s)));
        const std::map<QString, QByteArray> staged = {
            {u"deep-xml"_s, deepXml(kDeep)},
            {u"deep-binary"_s, deepBinary(kDeep)},
            {u"huge"_s, "<?xml version=\"1.0\"?>\n<plist version=\"1.0\">\n<array>\n"},
            {u"cyclic"_s, cyclicBinary(3)},
            {u"doubling"_s, doublingBinary(40)},
            {u"truncated"_s, realBinary.left(realBinary.size() * 2 / 3)},
        };
        for (const auto &[name, contents] : staged)
            ASSERT_TRUE(box.writeFile(kHostile + u'/' + name, contents, true));

        // What the link leads to: a run record and a LaunchServices list with
        // Premiere Pro in 32-bit mode, readable by root alone.
        QVariantMap secret = record(u"secret"_s, QString::fromLatin1(kSecret));
        secret.insert(u"CFBundleIdentifier"_s, u"com.adobe.AdobePremierePro"_s);
        secret.insert(u"disable-logging"_s, true);
        secret.insert(u"LSArchitecturesForX86_64"_s,
                      QVariantMap{{u"com.adobe.AdobePremierePro"_s, QVariantList{u"x86_64"_s, u"i386"_s}}});
        ASSERT_TRUE(box.writeFile(u"/root/secret.plist"_s, PropertyList::toXml(secret), false, 0600));

        ASSERT_TRUE(box.writeFile(kRecords + u'/' + kGoodRun + u".plist"_s,
                                  PropertyList::toXml(record(kGoodRun, u"No errors were found."_s)), true));
        // An application of anna's, running while the repair looks at what runs.
        ASSERT_TRUE(box.makeFolder(kApplication + u"/Contents/MacOS"_s, true));
        ASSERT_TRUE(box.writeFile(kApplication + u"/Contents/MacOS/Hostile"_s,
                                  disk::read(u"/usr/bin/sleep"_s), true, 0755));
    }

    static QVariantMap record(const QString &identifier, const QString &verdict)
    {
        return {{u"version"_s, 1},
                {u"identifier"_s, identifier},
                {u"start"_s, QDateTime::fromSecsSinceEpoch(1700000000, Qt::UTC)},
                {u"end"_s, QDateTime::fromSecsSinceEpoch(1700000060, Qt::UTC)},
                {u"mode"_s, u"command line"_s},
                {u"verdict"_s, verdict},
                {u"trashed"_s, QVariantList()}};
    }

    // Plants CLASS at TARGET as anna and runs COMMAND through the driver.
    ProcessResult run(const QString &hostileClass, const QString &target, const QStringList &command,
                      bool asRoot, bool withApplication = false)
    {
        QStringList arguments{u"sh"_s, kDriver, hostileClass, target};
        if (withApplication)
            arguments.append(u"app"_s);
        const QStringList environment{u"CAP="_s + kCap};
        const ProcessResult result = asRoot ? box.runAsRoot(arguments + command, environment)
                                            : box.runAsUser(arguments + command, environment);
        // One hostile list at a time, so that what happens is this one's doing.
        QFile::remove(box.hostPath(target));
        Outcome &outcome = outcomes[hostileClass];
        ++outcome.attempts;
        const QString err = QString::fromUtf8(result.err);
        const bool crashed =
            result.crashed || result.exitCode != 0 || statusOf(result) >= 128 || !err.contains(u"status "_s);
        outcome.crashes += crashed ? 1 : 0;
        outcome.peakKiB =
            std::max(outcome.peakKiB, err.section(u"peak "_s, -1).section(u' ', 0, 0).toLongLong());
        EXPECT_FALSE(crashed) << hostileClass.toStdString() << " at " << target.toStdString() << ": "
                              << command.join(' ').toStdString() << "\n"
                              << result.out.constData() << result.err.constData();
        EXPECT_FALSE(result.out.contains(kSecret) || result.err.contains(kSecret))
            << hostileClass.toStdString() << ": the link was followed";
        return result;
    }

    static int statusOf(const ProcessResult &result)
    {
        return QString::fromUtf8(result.err).section(u"status "_s, -1).trimmed().toInt();
    }

    Sandbox box;
    std::map<QString, Outcome> outcomes;
};

const QStringList kClasses = {
    u"deep-xml"_s, u"deep-binary"_s, u"huge"_s, u"cyclic"_s,
    u"doubling"_s, u"truncated"_s,   u"fifo"_s, u"link"_s,
};

TEST_F(HostileListsTest, NoReaderOfRootsCrashesWaitsOrRunsOutOfMemory)
{
    const QString hostileRecord = kRecords + u'/' + kHostileRun + u".plist"_s;
    const QString launchServices = kPreferences + u"/com.apple.LaunchServices.plist"_s;
    const QString stamps = kPreferences + u"/com.lanternfish.Mendwell.plist"_s;
    const QString global = kPreferences + u"/com.lanternfish.global.plist"_s;
    const QString info = kApplication + u"/Contents/Info.plist"_s;
    const QString log = kMachineLogs + u"/Mendwell.task.1.log"_s;

    for (const QString &hostileClass : kClasses) {
        SCOPED_TRACE(hostileClass.toStdString());
        // The run records, as root for the console user and as anna herself.
        for (bool asRoot : {true, false}) {
            const ProcessResult history = run(hostileClass, hostileRecord, {kCtl, u"history"_s}, asRoot);
            EXPECT_EQ(statusOf(history), 0);
            // mendwellctl keeps no log of its own; the log's notice of the damaged
            // record ("Unable to log the following information") goes to standard
            // error, so the output stays whole.
            const QStringList listed = QString::fromUtf8(history.out)
                                           .split(u'\n', Qt::SkipEmptyParts)
                                           .filter(QRegularExpression(u"^\\d{8}-"_s));
            EXPECT_TRUE(!listed.filter(kGoodRun).isEmpty() && listed.filter(kHostileRun).isEmpty())
                << history.out.constData();
            const ProcessResult json =
                run(hostileClass, hostileRecord, {kCtl, u"history"_s, u"--json"_s}, asRoot);
            EXPECT_EQ(statusOf(json), 0);
            EXPECT_TRUE(QJsonDocument::fromJson(json.out).isArray()) << json.out.constData();
            for (const QStringList &command :
                 {QStringList{u"report"_s}, QStringList{u"report"_s, kHostileRun},
                  QStringList{u"restore"_s, kHostileRun}}) {
                const ProcessResult result =
                    run(hostileClass, hostileRecord, QStringList{kCtl} + command, asRoot);
                // The damaged record counts as missing: nothing recorded, or no such run.
                EXPECT_EQ(statusOf(result), command.size() == 1 ? 3 : 2) << result.err.constData();
            }
        }
        // The repair as root, once for each list it reads in anna's tree.
        for (const QString &target : {launchServices, stamps, global, info}) {
            QFile::remove(box.hostPath(log));
            const ProcessResult repair =
                run(hostileClass, target, {Sandbox::mendwellPath(), u"-repair"_s}, true, target == info);
            EXPECT_EQ(statusOf(repair), 0);
            const QByteArray console = repair.out + repair.err;
            EXPECT_TRUE(console.contains("Errors were found during processing.") ||
                        console.contains("No errors were found."))
                << target.toStdString() << "\n"
                << console.constData();
            // The secret would have asked Premiere Pro (the running Hostile.app) to quit,
            // or reported its 32-bit mode, or turned logging off.
            EXPECT_FALSE(console.contains("Waiting for Premiere Pro to exit") ||
                         console.contains("32-bit mode. This may cause problems") ||
                         console.contains("Logging is disabled"))
                << target.toStdString() << "\n"
                << console.constData();
            // Her link leads root, acting as her, only where she may read: to a file
            // closed to her, which is as good as missing. Every other class is damage.
            const QByteArray said = box.readFile(log) + console;
            if (hostileClass != u"link") {
                EXPECT_TRUE(said.contains("Ignoring damaged property list " + target.toUtf8() + ": "))
                    << target.toStdString() << "\n"
                    << said.constData();
            }
        }
    }

    std::printf("%-12s %8s %8s %10s\n", "class", "attempts", "crashes", "peak KiB");
    for (const QString &hostileClass : kClasses) {
        const Outcome &outcome = outcomes[hostileClass];
        std::printf("%-12s %8d %8d %10lld\n", qPrintable(hostileClass), outcome.attempts, outcome.crashes,
                    static_cast<long long>(outcome.peakKiB));
        EXPECT_EQ(outcome.attempts, 14);
    }
}

}  // namespace
