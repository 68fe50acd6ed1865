// Property lists anna plants where root reads them: nested 200,000 levels deep
// (XML and binary), beyond the size bound, referring to themselves, doubling at
// every level, cut short, a FIFO nobody writes, a link to a file only root may
// read. Every reader root runs meets every class: the run records (mendwellctl as
// root and as anna), the LaunchServices list, the launch stamps, the suite's
// global preferences and the Info.plist of an application anna runs. Nothing may
// crash, wait on the FIFO, follow the link or use more memory than a cap that an
// unbounded read exceeds; the repair still ends with its verdict.

#include "system/PropertyList.h"
#include "tests/support/Sandbox.h"
#include "tests/support/TestFiles.h"

#include <QDateTime>
#include <QFile>
#include <QJsonDocument>
#include <QRegularExpression>

#include <gtest/gtest.h>
#include <plist/plist.h>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <map>
#include <sys/stat.h>

namespace {

const QString kRecords = QStringLiteral("/Users/anna/Library/Logs/Lanternfish/Repairs");
const QString kPreferences = QStringLiteral("/Users/anna/Library/Preferences");
const QString kApplication = QStringLiteral("/Users/anna/Applications/Hostile.app");
const QString kHostile = QStringLiteral("/Users/anna/.hostile");
const QString kDriver = QStringLiteral("/Applications/TestPrograms/hostile.sh");
const QString kCtl = QStringLiteral("/Applications/Mendwell.app/Contents/MacOS/mendwellctl");
const QString kMachineLogs = QStringLiteral("/Library/Logs/Lanternfish");
const QString kGoodRun = QStringLiteral("20240101-000000-000-1");
const QString kHostileRun = QStringLiteral("20990101-000000-000-1");
const QByteArray kSecret = "only-for-root";

// An address-space cap far above what the programs need (a few hundred MiB of
// mappings, thread stacks included) and far below what the unbounded readers took.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
const QString kCap;  // sanitizers reserve terabytes of address space
#else
const QString kCap = QStringLiteral("1073741824");
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

QByteArray bigEndian(quint64 value, int width)
{
    QByteArray bytes(width, '\0');
    for (int i = width - 1; i >= 0; --i, value >>= 8)
        bytes[i] = static_cast<char>(value & 0xff);
    return bytes;
}

// A binary list of COUNT objects, object 0 at the top, 4-byte references.
QByteArray binaryList(int count, const std::function<QByteArray(int)> &object)
{
    QByteArray list("bplist00");
    QByteArray offsets;
    for (int i = 0; i < count; ++i) {
        offsets += bigEndian(static_cast<quint64>(list.size()), 4);
        list += object(i);
    }
    const auto table = static_cast<quint64>(list.size());
    return list + offsets + QByteArray(6, '\0') + '\x04' + '\x04' + bigEndian(count, 8) + bigEndian(0, 8) +
           bigEndian(table, 8);
}

QByteArray arrayOf(std::initializer_list<int> refs)
{
    QByteArray array(1, static_cast<char>(0xa0 | refs.size()));
    for (int ref : refs)
        array += bigEndian(static_cast<quint64>(ref), 4);
    return array;
}

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
        ASSERT_TRUE(box.makeFolder(QStringLiteral("/Library/TestRuns")));
        ::chmod(QFile::encodeName(box.hostPath(QStringLiteral("/Library/TestRuns"))).constData(), 01777);
        ASSERT_TRUE(box.makeFolder(kMachineLogs));
        ASSERT_TRUE(box.makeFolder(kRecords, true));
        ASSERT_TRUE(box.makeFolder(kPreferences, true));

        constexpr int kDeep = 200000;
        const QByteArray deepXml = "<plist>" + QByteArray("<array>").repeated(kDeep) +
                                   QByteArray("</array>").repeated(kDeep) + "</plist>";
        const QByteArray deepBinary =
            binaryList(kDeep, [](int i) { return i + 1 < kDeep ? arrayOf({i + 1}) : arrayOf({}); });
        const QByteArray real = PropertyList::toXml(record(kHostileRun, QStringLiteral("real")));
        plist_t parsed = nullptr;
        plist_from_xml(real.constData(), static_cast<uint32_t>(real.size()), &parsed);
        char *binary = nullptr;
        uint32_t length = 0;
        plist_to_bin(parsed, &binary, &length);
        plist_free(parsed);
        const QByteArray realBinary(binary, static_cast<qsizetype>(length));
        plist_to_bin_free(binary);
        const std::map<QString, QByteArray> staged = {
            {QStringLiteral("deep-xml"), deepXml},
            {QStringLiteral("deep-binary"), deepBinary},
            {QStringLiteral("huge"), "<?xml version=\"1.0\"?>\n<plist version=\"1.0\">\n<array>\n"},
            {QStringLiteral("cyclic"), binaryList(3, [](int i) { return arrayOf({(i + 1) % 3}); })},
            // Two references to the next object at each of 40 levels: 2^40 values.
            {QStringLiteral("doubling"),
             binaryList(41,
                        [](int i) {
                            return i < 40 ? arrayOf({i + 1, i + 1}) : QByteArray("\x09");
                        })},
            {QStringLiteral("truncated"), realBinary.left(realBinary.size() * 2 / 3)},
        };
        for (const auto &[name, contents] : staged)
            ASSERT_TRUE(box.writeFile(kHostile + QLatin1Char('/') + name, contents, true));

        // What the link leads to: a run record and a LaunchServices list with
        // Premiere Pro in 32-bit mode, readable by root alone.
        QVariantMap secret = record(QStringLiteral("secret"), QString::fromLatin1(kSecret));
        secret.insert(QStringLiteral("CFBundleIdentifier"), QStringLiteral("com.adobe.AdobePremierePro"));
        secret.insert(QStringLiteral("disable-logging"), true);
        secret.insert(QStringLiteral("LSArchitecturesForX86_64"),
                      QVariantMap{{QStringLiteral("com.adobe.AdobePremierePro"),
                                   QVariantList{QStringLiteral("x86_64"), QStringLiteral("i386")}}});
        ASSERT_TRUE(box.writeFile(QStringLiteral("/root/secret.plist"), PropertyList::toXml(secret)));
        ::chmod(QFile::encodeName(box.hostPath(QStringLiteral("/root/secret.plist"))).constData(), 0600);

        ASSERT_TRUE(box.writeFile(
            kRecords + QLatin1Char('/') + kGoodRun + QStringLiteral(".plist"),
            PropertyList::toXml(record(kGoodRun, QStringLiteral("No errors were found."))), true));
        // An application of anna's, running while the repair looks at what runs.
        ASSERT_TRUE(box.makeFolder(kApplication + QStringLiteral("/Contents/MacOS"), true));
        QFile sleep(QStringLiteral("/usr/bin/sleep"));
        ASSERT_TRUE(sleep.open(QIODevice::ReadOnly));
        ASSERT_TRUE(
            box.writeFile(kApplication + QStringLiteral("/Contents/MacOS/Hostile"), sleep.readAll(), true));
        ::chmod(QFile::encodeName(box.hostPath(kApplication + QStringLiteral("/Contents/MacOS/Hostile")))
                    .constData(),
                0755);
    }

    static QVariantMap record(const QString &identifier, const QString &verdict)
    {
        return {{QStringLiteral("version"), 1},
                {QStringLiteral("identifier"), identifier},
                {QStringLiteral("start"), QDateTime::fromSecsSinceEpoch(1700000000, Qt::UTC)},
                {QStringLiteral("end"), QDateTime::fromSecsSinceEpoch(1700000060, Qt::UTC)},
                {QStringLiteral("mode"), QStringLiteral("command line")},
                {QStringLiteral("verdict"), verdict},
                {QStringLiteral("trashed"), QVariantList()}};
    }

    // Plants CLASS at TARGET as anna and runs COMMAND through the driver.
    ProcessResult run(const QString &hostileClass, const QString &target, const QStringList &command,
                      bool asRoot, bool withApplication = false)
    {
        QStringList arguments{QStringLiteral("sh"), kDriver, hostileClass, target};
        if (withApplication)
            arguments.append(QStringLiteral("app"));
        const QStringList environment{QStringLiteral("CAP=") + kCap};
        const ProcessResult result = asRoot ? box.runAsRoot(arguments + command, environment)
                                            : box.runAsUser(arguments + command, environment);
        // One hostile list at a time, so that what happens is this one's doing.
        QFile::remove(box.hostPath(target));
        Outcome &outcome = outcomes[hostileClass];
        ++outcome.attempts;
        const QString err = QString::fromUtf8(result.err);
        const int status = err.section(QStringLiteral("status "), -1).trimmed().toInt();
        const bool crashed = result.crashed || result.exitCode != 0 || status >= 128 ||
                             !err.contains(QStringLiteral("status "));
        outcome.crashes += crashed ? 1 : 0;
        outcome.peakKiB =
            std::max(outcome.peakKiB,
                     err.section(QStringLiteral("peak "), -1).section(QLatin1Char(' '), 0, 0).toLongLong());
        EXPECT_FALSE(crashed) << hostileClass.toStdString() << " at " << target.toStdString() << ": "
                              << command.join(' ').toStdString() << "\n"
                              << result.out.constData() << result.err.constData();
        EXPECT_FALSE(result.out.contains(kSecret) || result.err.contains(kSecret))
            << hostileClass.toStdString() << ": the link was followed";
        return result;
    }

    static int statusOf(const ProcessResult &result)
    {
        return QString::fromUtf8(result.err).section(QStringLiteral("status "), -1).trimmed().toInt();
    }

    Sandbox box;
    std::map<QString, Outcome> outcomes;
};

const QStringList kClasses = {
    QStringLiteral("deep-xml"), QStringLiteral("deep-binary"), QStringLiteral("huge"),
    QStringLiteral("cyclic"),   QStringLiteral("doubling"),    QStringLiteral("truncated"),
    QStringLiteral("fifo"),     QStringLiteral("link"),
};

TEST_F(HostileListsTest, NoReaderOfRootsCrashesWaitsOrRunsOutOfMemory)
{
    const QString hostileRecord = kRecords + QLatin1Char('/') + kHostileRun + QStringLiteral(".plist");
    const QString launchServices = kPreferences + QStringLiteral("/com.apple.LaunchServices.plist");
    const QString stamps = kPreferences + QStringLiteral("/com.lanternfish.Mendwell.plist");
    const QString global = kPreferences + QStringLiteral("/com.lanternfish.global.plist");
    const QString info = kApplication + QStringLiteral("/Contents/Info.plist");
    const QString log = kMachineLogs + QStringLiteral("/Mendwell.task.1.log");

    for (const QString &hostileClass : kClasses) {
        SCOPED_TRACE(hostileClass.toStdString());
        // The run records, as root for the console user and as anna herself.
        for (bool asRoot : {true, false}) {
            const ProcessResult history =
                run(hostileClass, hostileRecord, {kCtl, QStringLiteral("history")}, asRoot);
            EXPECT_EQ(statusOf(history), 0);
            // mendwellctl keeps no log of its own; the log's notice of the damaged
            // record ("Unable to log the following information") goes to standard
            // error, so the output stays whole.
            const QStringList listed = QString::fromUtf8(history.out)
                                           .split(QLatin1Char('\n'), Qt::SkipEmptyParts)
                                           .filter(QRegularExpression(QStringLiteral("^\\d{8}-")));
            EXPECT_TRUE(!listed.filter(kGoodRun).isEmpty() && listed.filter(kHostileRun).isEmpty())
                << history.out.constData();
            const ProcessResult json =
                run(hostileClass, hostileRecord, {kCtl, QStringLiteral("history"), QStringLiteral("--json")},
                    asRoot);
            EXPECT_EQ(statusOf(json), 0);
            EXPECT_TRUE(QJsonDocument::fromJson(json.out).isArray()) << json.out.constData();
            for (const QStringList &command :
                 {QStringList{QStringLiteral("report")}, QStringList{QStringLiteral("report"), kHostileRun},
                  QStringList{QStringLiteral("restore"), kHostileRun}}) {
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
                run(hostileClass, target, {Sandbox::mendwellPath(), QStringLiteral("-repair")}, true,
                    target == info);
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
