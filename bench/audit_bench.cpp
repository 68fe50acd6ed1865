// The permission audit against GNU find on one generated tree of Adobe preference
// and cache folders in a home, warm cache, in one run: checkPermissionsForDirectory
// against `find ROOT -printf '%u %m\n'`, which reads the same owner and mode of
// every item. As root it then makes 1% of the items wrong for the console user
// anna (scripts/setup-tests.sh makes the account) and times permissiontool
// correcting them, in bubblewrap with /Users and /Library of the run's own, against
// the audit and find on that tree; the audit afterwards must report nothing.
//
//   audit_bench [ITEMS]      (default 200000)
//
// Every time is the median of five runs after one untimed warm-up run.

#include "app/audit/HXMendwellUtils.h"
#include "app/audit/HXPermissionCorrection.h"
#include "app/audit/HXPermissionRules.h"
#include "platform/Accounts.h"
#include "tests/support/FreshRoot.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <functional>
#include <iterator>
#include <optional>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr int kRuns = 5;
constexpr const char *kConsoleUser = "anna";

const char *const kProducts[] = {"Adobe Premiere Pro 2024",
                                 "After Effects 2024",
                                 "Adobe Media Encoder",
                                 "Adobe Photoshop 2024",
                                 "Adobe Illustrator",
                                 "Common",
                                 "CoreSync",
                                 "OOBE",
                                 "CEP",
                                 "Acrobat",
                                 "MediaCore",
                                 "SLStore"};
const char *const kSubfolders[] = {"Profile-anna", "Plugins", "Presets", "Media Cache",
                                   "Workspaces",   "Logs",    "Styles",  "Extensions"};
const char *const kLeaves[] = {"Media Cache Files", "Peak Files", "Auto-Save", "Layouts", "Effect Presets"};
const char *const kSuffixes[] = {".cfa", ".pek", ".prproj", ".xml", ".plist", ".json"};

struct Tree {
    QString home;
    QString root;
    int folders = 0;
    int items = 0;
    // Every hundredth item below the sub-folders, the ones made wrong.
    std::vector<QByteArray> chosen;
};

// ITEMS items, one in ten a folder: product folders with eight sub-folders each,
// then numbered folders of files below those, in chains of three.
std::optional<Tree> makeTree(const QString &top, int items)
{
    Tree tree;
    tree.home = top + QStringLiteral("/Users/") + QLatin1String(kConsoleUser);
    tree.root = tree.home + QStringLiteral("/Library/Application Support/Adobe");
    if (!QDir().mkpath(tree.root))
        return std::nullopt;
    bool ok = true;
    int below = 0;
    auto add = [&](const QByteArray &path, bool folder, bool mayChoose) {
        // SLStore items must allow everything, as real ones do.
        const mode_t mode = path.contains("/SLStore") ? 0777 : folder ? 0755 : 0644;
        const int fd = folder ? ::mkdir(path.constData(), mode)
                              : ::open(path.constData(), O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC, mode);
        ok = ok && fd >= 0 && (folder || ::close(fd) == 0);
        // Past the umask.
        if (mode == 0777)
            ok = ok && ::chmod(path.constData(), mode) == 0;
        ++tree.items;
        if (mayChoose && ++below % 100 == 0)
            tree.chosen.push_back(path);
        tree.folders += folder ? 1 : 0;
    };
    const QByteArray root = QFile::encodeName(tree.root);
    const auto products = int(std::size(kProducts));
    const auto subfolders = int(std::size(kSubfolders));
    for (const char *product : kProducts) {
        add(root + '/' + product, true, false);
        for (const char *sub : kSubfolders)
            add(root + '/' + product + '/' + sub, true, false);
    }
    const int leaves = std::max(1, items / 10 - products * (subfolders + 1));
    const int files = std::max(0, items - tree.items - leaves);
    QByteArray parent;
    for (int leaf = 0; leaf < leaves && ok; ++leaf) {
        const int chain = leaf / 3;
        if (leaf % 3 == 0)
            parent =
                root + '/' + kProducts[chain % products] + '/' + kSubfolders[(chain / products) % subfolders];
        parent += '/' + QByteArray(kLeaves[leaf % std::size(kLeaves)]) + ' ' + QByteArray::number(leaf);
        add(parent, true, true);
        const int count = files / leaves + (leaf < files % leaves ? 1 : 0);
        for (int file = 0; file < count; ++file)
            add(parent + "/item " + QByteArray::number(file) + kSuffixes[file % std::size(kSuffixes)], false,
                true);
    }
    return ok ? std::optional<Tree>(std::move(tree)) : std::nullopt;
}

struct Timing {
    double median = 0;
    double best = 0;
};

// One untimed warm-up run, then kRuns timed ones; PREPARE runs untimed before each.
std::optional<Timing> measure(const std::function<bool()> &run, const std::function<void()> &prepare = {})
{
    std::vector<double> seconds;
    for (int i = 0; i <= kRuns; ++i) {
        if (prepare)
            prepare();
        const auto start = std::chrono::steady_clock::now();
        if (!run())
            return std::nullopt;
        if (i > 0)
            seconds.push_back(
                std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
    }
    std::sort(seconds.begin(), seconds.end());
    return Timing{seconds[seconds.size() / 2], seconds.front()};
}

bool runToEnd(const QString &program, const QStringList &arguments)
{
    QProcess process;
    process.setProcessChannelMode(QProcess::ForwardedChannels);
    process.start(program, arguments);
    return process.waitForStarted() && process.waitForFinished(-1) &&
           process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0;
}

bool runFind(const QString &root)
{
    return runToEnd(QStringLiteral("/bin/sh"),
                    {QStringLiteral("-c"), QStringLiteral("find \"$1\" -printf '%u %m\\n' > /dev/null"),
                     QStringLiteral("sh"), root});
}

// COMMAND as root with anna at the console, in a fresh root holding every real
// top-level folder but with /Users and /Library from TOP, as the tests' sandbox
// builds it: the host has neither folder, so binding over them is not enough.
QStringList inSandbox(const QString &top, const QStringList &command)
{
    QStringList args = bubblewrapFreshRoot({QStringLiteral("Users"), QStringLiteral("Library")});
    args << QStringLiteral("--bind") << top + QStringLiteral("/Users") << QStringLiteral("/Users");
    args << QStringLiteral("--bind") << top + QStringLiteral("/Library") << QStringLiteral("/Library");
    // The console user comes from SUDO_USER, not from a seat of this machine.
    if (QFileInfo(QStringLiteral("/run/systemd/seats")).isDir())
        args << QStringLiteral("--tmpfs") << QStringLiteral("/run/systemd/seats");
    args << QStringLiteral("--unshare-pid") << QStringLiteral("--die-with-parent")
         << QStringLiteral("--clearenv");
    const std::pair<const char *, const char *> environment[] = {
        {"PATH", "/usr/local/bin:/usr/bin:/bin:/usr/sbin:/sbin"},
        {"LC_ALL", "C.UTF-8"},
        {"HOME", "/root"},
        {"USER", "root"},
        {"SUDO_USER", kConsoleUser}};
    for (const auto &[name, value] : environment)
        args << QStringLiteral("--setenv") << QLatin1String(name) << QLatin1String(value);
    return args << QStringLiteral("--") << command;
}

std::optional<int> audited(const Tree &tree, const HXPermissionRules &rules)
{
    const std::optional<QStringList> wrong = HXMendwellUtils::checkPermissionsForDirectory(tree.root, rules);
    return wrong ? std::optional<int>(int(wrong->size())) : std::nullopt;
}

std::optional<Timing> timeAudit(const Tree &tree, const HXPermissionRules &rules)
{
    return measure([&] { return audited(tree, rules).has_value(); });
}

void printRatio(const char *label, const Timing &ours, const char *other, const Timing &theirs)
{
    std::printf("%-14s %.3f s [%.3f]  %s %.3f s [%.3f]  ratio %.2f\n", label, ours.median, ours.best, other,
                theirs.median, theirs.best, ours.median / theirs.median);
}

int fail(const char *what)
{
    std::fprintf(stderr, "audit_bench: %s\n", what);
    return 1;
}

}  // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    const int items = argc > 1 ? QString::fromLocal8Bit(argv[1]).toInt() : 200000;
    if (items < 1000)
        return fail("ITEMS must be at least 1000");
    ::umask(022);
    QTemporaryDir top(QDir::tempPath() + QStringLiteral("/mendwell-audit-bench-XXXXXX"));
    const std::optional<Tree> tree = top.isValid() ? makeTree(top.path(), items) : std::nullopt;
    if (!tree)
        return fail("cannot write the tree");
    // Writing back what the set-up changed must not fall into a timed run.
    ::sync();
    const QString localSupport = top.path() + QStringLiteral("/Library/Application Support");
    std::printf("%d items (%d folders) under %s\n", tree->items, tree->folders, qPrintable(tree->root));
    std::printf("Times: median of %d runs after one warm-up, best in brackets\n", kRuns);

    const platform::Account self = platform::processAccount();
    const HXPermissionRules ownRules(tree->home, self.name, localSupport, HXAccessRights::of(self));
    const std::optional<Timing> audit = timeAudit(*tree, ownRules);
    const std::optional<Timing> find = measure([&] { return runFind(tree->root); });
    if (!audit || !find)
        return fail("the audit or find failed");
    printRatio("audit", *audit, "find", *find);
    std::printf("The audit reports %d items as %s\n", audited(*tree, ownRules).value_or(-1),
                qPrintable(self.name));

    const std::optional<platform::Account> anna = platform::accountNamed(QLatin1String(kConsoleUser));
    if (::geteuid() != 0 || !anna || QStandardPaths::findExecutable(QStringLiteral("bwrap")).isEmpty()) {
        std::printf("permissiontool: skipped, it needs root, bubblewrap and the account anna\n");
        return 0;
    }
    // permissiontool's own rules, moved under the run's folder.
    const HXPermissionRules annaRules(tree->home, anna->name, localSupport,
                                      HXAccessRights{false, anna->uid, anna->groups});
    QDir().mkpath(tree->home + QStringLiteral("/Documents/Adobe"));
    QDir().mkpath(localSupport + QStringLiteral("/Adobe"));
    if (!runToEnd(QStringLiteral("chown"),
                  {QStringLiteral("-R"), anna->name + QLatin1Char(':') + anna->name, tree->home}))
        return fail("cannot hand the tree to anna");
    // Alternately not readable nor writable by its owner, and owned by root; a
    // MediaCore item only needs to be readable, so it always loses its owner's rights.
    auto losesOwner = [&](size_t i) { return i % 2 == 1 && !tree->chosen[i].contains("/MediaCore"); };
    auto breakTree = [&] {
        for (size_t i = 0; i < tree->chosen.size(); ++i) {
            const QByteArray &path = tree->chosen[i];
            struct stat info {};
            if (losesOwner(i))
                ::lchown(path.constData(), 0, gid_t(-1));
            else if (::lstat(path.constData(), &info) == 0)
                ::chmod(path.constData(), info.st_mode & 07177);
        }
        ::sync();
    };
    breakTree();
    std::printf("As anna at the console, %zu items (1%%) made wrong: the audit reports %d\n",
                tree->chosen.size(), audited(*tree, annaRules).value_or(-1));
    const std::optional<Timing> brokenAudit = timeAudit(*tree, annaRules);
    const std::optional<Timing> brokenFind = measure([&] { return runFind(tree->root); });
    // The repair preview as root for anna, on the broken tree: the audit's findings
    // (with the repair's own rules: anna's home, root's rights) and permissiontool's
    // changes, run dry, from one walk, against that audit alone.
    const HXPermissionRules repairAuditRules(tree->home, anna->name, localSupport, HXAccessRights::of(self));
    const std::optional<Timing> rootAudit = timeAudit(*tree, repairAuditRules);
    const std::optional<Timing> preview = measure([&] {
        return !previewPermissions(tree->root, repairAuditRules, annaRules, *anna).changes.isEmpty();
    });
    if (!preview || !rootAudit)
        return fail("the preview failed");
    const PermissionPreview previewed = previewPermissions(tree->root, repairAuditRules, annaRules, *anna);
    std::printf("The preview lists %zu findings and %lld changes\n", previewed.findings.size(),
                static_cast<long long>(previewed.changes.count('\n')));
    printRatio("preview", *preview, "audit", *rootAudit);
    const QString tool = QStringLiteral(MENDWELL_BUNDLE_DIR "/Contents/MacOS/permissiontool");
    const std::optional<Timing> sandboxOnly = measure([&] {
        return runToEnd(QStringLiteral("bwrap"), inSandbox(top.path(), {QStringLiteral("/bin/true")}));
    });
    const std::optional<Timing> repair =
        measure([&] { return runToEnd(QStringLiteral("bwrap"), inSandbox(top.path(), {tool})); }, breakTree);
    if (!brokenAudit || !brokenFind || !sandboxOnly || !repair)
        return fail("the audit, find or permissiontool failed");
    printRatio("audit", *brokenAudit, "find", *brokenFind);
    printRatio("permissiontool", *repair, "audit", *brokenAudit);
    printRatio("permissiontool", *repair, "find", *brokenFind);
    std::printf("(permissiontool times include starting bubblewrap: %.3f s for /bin/true)\n",
                sandboxOnly->median);

    // Each item got back what it lost (a MediaCore item need not be writable).
    int corrected = 0;
    for (size_t i = 0; i < tree->chosen.size(); ++i) {
        struct stat info {};
        if (::lstat(tree->chosen[i].constData(), &info) == 0)
            corrected += losesOwner(i) ? info.st_uid == anna->uid : (info.st_mode & 0400) != 0;
    }
    const int left = audited(*tree, annaRules).value_or(-1);
    std::printf("permissiontool corrected %d of %zu items; the audit then reports %d\n", corrected,
                tree->chosen.size(), left);
    return left == 0 && corrected == int(tree->chosen.size()) ? 0 : 1;
}
