// anna against root: runs one class of root's operations on anna's tree again and
// again while a process of anna's swaps folders for symbolic links to a root-owned
// decoy outside her tree, and counts the attempts after which the decoy changed.
// Run as root inside the test sandbox, beside the bundle's privileged runner and
// helper tools:
//   linkattack CLASS ATTEMPTS SECONDS
// Prints "CLASS attempts=N swaps=N escapes=N" and, for the first escape, what
// changed. Exits 0 when nothing escaped.

#include "diagnostics/HXLog.h"
#include "fs/HXFileManager.h"
#include "platform/AdminAuthorization.h"
#include "platform/ChildProcess.h"
#include "platform/Folder.h"
#include "system/HXAuthorization.h"
#include "system/HXPrivilegedRequest.h"
#include "tests/support/TestFiles.h"

#include <QByteArray>
#include <QCoreApplication>
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QMap>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <functional>
#include <grp.h>
#include <pwd.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace Qt::Literals::StringLiterals;

namespace {

const QString kDecoy = u"/Library/Decoy"_s;
// A root file on the same file system as anna's home, for second names there.
const QString kLinkedDecoy = u"/Users/Decoy"_s;
const QString kHome = u"/Users/anna"_s;
uid_t annaUid = 0;
gid_t annaGid = 0;

// --- The decoy and its fingerprint

QByteArray encode(const QString &path)
{
    return QFile::encodeName(path);
}

void makeDecoy()
{
    if (QFileInfo::exists(kDecoy + u"/locked.txt"_s))
        disk::setLocked(kDecoy + u"/locked.txt"_s, false);
    QDir(kDecoy).removeRecursively();
    QDir().mkpath(kDecoy + u"/sub"_s);
    ::chmod(encode(kDecoy).constData(), 0755);
    disk::write(kDecoy + u"/secret"_s, "root's secret\n", 0600);
    for (const char *name : {"item.txt", "pref.xml", "Workspace.plist", "sub/inner.txt", "locked.txt"})
        disk::write(kDecoy + u'/' + QLatin1String(name), QByteArray("decoy ") + name + '\n', 0644);
    disk::setLocked(kDecoy + u"/locked.txt"_s, true);
    QDir(kLinkedDecoy).removeRecursively();
    QDir().mkpath(kLinkedDecoy);
    ::chmod(encode(kLinkedDecoy).constData(), 0700);
    disk::write(kLinkedDecoy + u"/shadow"_s, "root's other secret\n", 0600);
}

QString decoys()
{
    return disk::fingerprint(kDecoy) + disk::fingerprint(kLinkedDecoy, u"linked"_s);
}

// --- anna's side

struct Shared {
    std::atomic<int> phase{0};  // 0 idle, 1 swap, 2 quit
    std::atomic<int> acknowledged{0};
    std::atomic<long> swaps{0};
    char swapPath[512]{};
    char linkTarget[512]{};
    int mode = 0;  // 0: a folder for a link and back; 1: keep planting a link where a file goes
};

void becomeAnna()
{
    if (::setgroups(0, nullptr) != 0 || ::setresgid(annaGid, annaGid, annaGid) != 0 ||
        ::setresuid(annaUid, annaUid, annaUid) != 0)
        ::_exit(3);
}

void attacker(Shared *shared)
{
    becomeAnna();
    for (;;) {
        const int phase = shared->phase.load();
        if (phase == 2)
            ::_exit(0);
        if (phase == 0) {
            shared->acknowledged.store(1);
            ::usleep(20);
            continue;
        }
        shared->acknowledged.store(0);
        const QByteArray path(shared->swapPath);
        const QByteArray away = path + ".away";
        if (shared->mode == 1) {
            if (::symlink(shared->linkTarget, path.constData()) == 0)
                shared->swaps.fetch_add(1);
            continue;
        }
        if (::rename(path.constData(), away.constData()) != 0)
            continue;
        if (::symlink(shared->linkTarget, path.constData()) == 0) {
            shared->swaps.fetch_add(1);
            for (int spin = 0; spin < 200; ++spin)
                asm volatile("" ::: "memory");
            ::unlink(path.constData());
        }
        ::rename(away.constData(), path.constData());
    }
}

// --- root's side

Shared *shared = nullptr;

// Removes an attempt's tree as root, never through a link.
void clean(const QString &path)
{
    if (const std::optional<platform::Item> item = platform::Item::open(path))
        item->folder.removeTree(item->name);
}

void swapWhile(const QString &path, const QString &target, int mode, const std::function<void()> &operation)
{
    std::snprintf(shared->swapPath, sizeof shared->swapPath, "%s", encode(path).constData());
    std::snprintf(shared->linkTarget, sizeof shared->linkTarget, "%s", encode(target).constData());
    shared->mode = mode;
    shared->acknowledged.store(0);
    shared->phase.store(1);
    operation();
    shared->phase.store(0);
    while (shared->acknowledged.load() == 0)
        ::usleep(10);
    // Whatever the swapper left half-done is undone before anything is judged. A
    // folder root made in the moment the name was free gives way to the original,
    // or no later swap could land.
    const QByteArray away = encode(path) + ".away";
    struct stat info {};
    if (::lstat(encode(path).constData(), &info) == 0 && S_ISLNK(info.st_mode))
        ::unlink(encode(path).constData());
    if (::lstat(away.constData(), &info) == 0 && ::rename(away.constData(), encode(path).constData()) != 0) {
        clean(path);
        ::rename(away.constData(), encode(path).constData());
    }
}

// Folders and files of anna's, made fresh for an attempt.
void annaFolder(const QString &path)
{
    disk::makePath(path, annaUid, annaGid);
}

void annaFile(const QString &path, const QByteArray &contents = "anna's\n")
{
    annaFolder(QFileInfo(path).path());
    disk::write(path, contents, 0644);
    if (::lchown(encode(path).constData(), annaUid, annaGid) != 0)
        std::perror("lchown");
}

void annaLink(const QString &target, const QString &path)
{
    if (::symlink(encode(target).constData(), encode(path).constData()) != 0 ||
        ::lchown(encode(path).constData(), annaUid, annaGid) != 0)
        std::perror("annaLink");
}

// Clears the locked flag of PATH and of everything below it, links left alone.
void unlockEverything(const QString &path)
{
    disk::setLocked(path, false);
    QDirIterator it(path, QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden | QDir::System,
                    QDirIterator::Subdirectories);
    while (it.hasNext())
        if (!QFileInfo(it.next()).isSymLink())
            disk::setLocked(it.filePath(), false);
}

void cleanTrash()
{
    clean(kHome + u"/.local/share/Trash/files"_s);
    clean(kHome + u"/.local/share/Trash/info"_s);
}

// Runs the bundle's helper tool NAME as root, as a repair does, to its end.
void runTool(const QString &name, const QStringList &arguments)
{
    platform::ChildProcess tool(QFileInfo(HXAuthorization::runnerPath()).path() + u'/' + name, arguments);
    tool.setStandardError(platform::ChildProcess::Stream::Null);
    if (tool.launch())
        tool.waitUntilExit();
}

using Attempt = std::function<void(int attempt)>;

Attempt attemptFor(const QString &name)
{
    HXAuthorization &auth = HXAuthorization::sharedController(false);
    const QString caches = kHome + u"/Library/Caches"_s;
    if (name == u"copy"_s)
        return [&auth](int n) {
            const QString source = kHome + u"/src"_s;
            const QString destination = kHome + u"/dst"_s;
            for (int i = 0; i < (n % 250 == 0 ? 1500 : 6); ++i)
                annaFile(source + u"/f%1"_s.arg(i));
            annaFolder(source + u"/inner"_s);
            annaFile(source + u"/inner/secret"_s);
            // Half the attempts swap the folder root made, half a file root made in it.
            const bool folder = n % 2 == 0;
            swapWhile(folder ? destination : destination + u"/f0"_s, folder ? kDecoy : kDecoy + u"/secret"_s,
                      folder ? 0 : 1, [&] {
                          if (n % 4 < 2)
                              HXFileManager::copyFile(source, destination, false);
                          else
                              auth.authCopyFile(source, destination);
                      });
            clean(source);
            clean(destination);
        };
    if (name == u"move"_s)
        return [&auth](int n) {
            const QString from = kHome + u"/msrc"_s;
            const QString to = kHome + u"/mdst"_s;
            annaFile(from + u"/item.txt"_s);
            annaFolder(to);
            const bool swapSource = n % 2 == 1;
            swapWhile(swapSource ? from : to, kDecoy, 0, [&] {
                if (n % 4 < 2)
                    HXFileManager::moveFile(from + u"/item.txt"_s, to + u"/item.txt"_s, false);
                else
                    auth.authMoveFile(from + u"/item.txt"_s, to + u"/item.txt"_s);
            });
            clean(from);
            clean(to);
        };
    if (name == u"trash"_s)
        return [&auth, caches](int n) {
            const QString folder = caches + u"/T"_s;
            annaFile(folder + u"/item.txt"_s);
            swapWhile(folder, kDecoy, 0, [&] {
                if (n % 2 == 0)
                    HXFileManager::trashFile(folder + u"/item.txt"_s, false);
                else
                    auth.authTrashFile(folder + u"/item.txt"_s);
            });
            clean(folder);
        };
    if (name == u"trashmatching"_s)
        return [](int n) {
            const QString prefs = kHome + u"/Library/Preferences/P"_s;
            for (const char *sub : {"S1", "S2", "S3"})
                annaFile(prefs + u'/' + QLatin1String(sub) + u"/pref.xml"_s);
            // A link planted in advance, and a sub-folder swapped while root walks.
            annaLink(kDecoy, prefs + u"/evil"_s);
            swapWhile(prefs + u"/S2"_s, kDecoy, 0, [&] {
                if (n % 2 == 0)
                    HXFileManager::trashFilesNamed(u"pref.xml"_s, prefs);
                else
                    HXFileManager::trashFilesOfType(u"XML"_s, prefs);
            });
            clean(prefs);
        };
    if (name == u"remove"_s)
        return [&auth, caches](int n) {
            const QString folder = caches + u"/R"_s;
            annaFile(folder + u"/sub/item.txt"_s);
            annaFile(folder + u"/sub/inner.txt"_s);
            // Planted: a link in the middle of the path.
            annaLink(kDecoy, caches + u"/PrefLink"_s);
            if (n % 10 == 0)
                HXFileManager::removeFile(caches + u"/PrefLink/item.txt"_s, true);
            swapWhile(folder + u"/sub"_s, kDecoy, 0, [&] {
                if (n % 2 == 0)
                    HXFileManager::removeFile(folder, false);
                else
                    auth.authRemoveFile(folder + u"/sub/item.txt"_s);
            });
            clean(folder);
            clean(caches + u"/PrefLink"_s);
        };
    if (name == u"mkdir"_s)
        return [&auth](int n) {
            const QString a = kHome + u"/a"_s;
            annaFolder(a + u"/b"_s);
            swapWhile(a + u"/b"_s, kDecoy, 0, [&] {
                if (n % 2 == 0)
                    HXFileManager::createDirectory(a + u"/b/c/d"_s, false);
                else
                    auth.authCreateDir(a + u"/b/c/d"_s);
            });
            clean(a);
        };
    if (name == u"zip"_s)
        return [](int n) {
            const QString desktop = kHome + u"/Desktop"_s;
            const QString source = kHome + u"/Logs"_s;
            annaFile(source + u"/a.log"_s);
            annaFile(desktop + u"/Logs.zip"_s, "old archive");
            if (n % 2 == 0)  // a link planted where the archive goes, once the old one is trashed
                swapWhile(desktop + u"/Logs.zip"_s, kDecoy + u"/secret"_s, 1,
                          [&] { HXFileManager::compressFile(source, desktop + u"/Logs.zip"_s); });
            else
                swapWhile(desktop, kDecoy, 0,
                          [&] { HXFileManager::compressFile(source, desktop + u"/Logs.zip"_s); });
            clean(desktop);
            clean(source);
        };
    if (name == u"records"_s)
        return [&auth, caches](int n) {
            const QString item = caches + u"/rec.txt"_s;
            annaFile(item);
            const QString trash = kHome + u"/.local/share/Trash"_s;
            annaFolder(trash + u"/files"_s);
            annaFolder(trash + u"/info"_s);
            swapWhile(trash + (n % 2 == 0 ? u"/info"_s : u"/files"_s), kDecoy, 0, [&] {
                if (n % 4 < 2)
                    HXFileManager::trashFile(item, false);
                else
                    auth.authTrashFile(item);
            });
            clean(item);
        };
    if (name == u"flags"_s)
        return [](int n) {
            const QString folder = kHome + u"/F"_s;
            annaFile(folder + u"/sub/locked.txt"_s);
            // Enough items that anna's swaps land while root walks, even on a busy machine.
            for (int i = 0; i < 40; ++i)
                annaFile(folder + u"/sub/item%1.txt"_s.arg(i));
            swapWhile(folder + u"/sub"_s, kDecoy, 0, [&] {
                switch (n % 3) {
                case 0:
                    HXFileManager::unlockFolder(folder);
                    break;
                case 1:
                    HXFileManager::lockFolder(folder);
                    break;
                default:
                    HXFileManager::unlockFile(folder + u"/sub/locked.txt"_s);
                    break;
                }
            });
            HXFileManager::unlockFolder(folder);
            // A folder left locked (say under the name anna swapped it to) would keep
            // her from swapping anything in later attempts.
            unlockEverything(folder);
            clean(folder);
        };
    if (name == u"permissiontool"_s)
        return [](int n) {
            const QString adobe = kHome + u"/Library/Application Support/Adobe"_s;
            const QString sub = adobe + u"/Common/Sub"_s;
            for (int i = 0; i < 20; ++i) {
                const QString item = sub + u"/root%1.prefs"_s.arg(i);
                annaFile(item);
                if (::lchown(encode(item).constData(), 0, 0) != 0)
                    std::perror("lchown");
                ::chmod(encode(item).constData(), 0600);
            }
            // Planted beforehand: a second name of a root file, as a system without
            // protected hard links would let anna make.
            if (::link(encode(kLinkedDecoy + u"/shadow"_s).constData(),
                       encode(adobe + u"/Common/shadow"_s).constData()) != 0)
                std::printf("could not plant a hard link: %s\n", std::strerror(errno));
            swapWhile(n % 2 == 0 ? sub : adobe + u"/Common"_s, kDecoy, 0,
                      [] { runTool(u"permissiontool"_s, {}); });
            clean(adobe);
        };
    if (name == u"trashtool"_s)
        return [caches](int n) {
            const QString folder = caches + u"/T"_s;
            annaFile(folder + u"/item.txt"_s);
            annaFile(folder + u"/other.txt"_s);
            const QString trash = kHome + u"/.local/share/Trash"_s;
            annaFolder(trash + u"/files"_s);
            annaFolder(trash + u"/info"_s);
            const QString swapped = n % 3 == 0   ? folder
                                    : n % 3 == 1 ? trash + u"/files"_s
                                                 : trash + u"/info"_s;
            swapWhile(swapped, kDecoy, 0, [&] {
                if (n % 2 == 0)
                    runTool(u"trashtool"_s, {folder + u"/item.txt"_s});
                else
                    runTool(u"trashtool"_s, {u"-dircontents"_s, folder});
            });
            clean(folder);
        };
    return nullptr;
}

// --- The classes without a race

// Every spelling of a protected folder, through every operation that refuses one.
int protectedSpellings(QString &details)
{
    HXAuthorization &auth = HXAuthorization::sharedController(false);
    int escapes = 0;
    const QStringList spellings{u"/Users/anna/"_s,          u"/Users/anna//Library"_s,
                                u"/Users/anna/./Library"_s, u"/Users/anna/Library/."_s,
                                u"/Library/Preferences/"_s, u"/Users/anna/Library/Preferences/"_s};
    for (const QString &spelling : spellings) {
        const bool any = auth.authRemoveFile(spelling) || auth.authTrashFile(spelling) ||
                         auth.authTrashFolderContents(spelling) ||
                         auth.authMoveFile(spelling, kHome + u"/moved"_s);
        if (any || !QFileInfo(platform::absoluteItemPath(spelling)).isDir()) {
            ++escapes;
            details += spelling + u" was not refused\n"_s;
        }
    }
    return escapes;
}

// Requests written by hand on the runner's input.
int runnerRequests(QString &details)
{
    platform::ChildProcess runner(HXAuthorization::runnerPath(), {});
    runner.setStandardInput(platform::ChildProcess::Stream::Pipe);
    runner.setStandardOutput(platform::ChildProcess::Stream::Pipe);
    if (!runner.launch() || platform::readMessage(runner.standardOutputReadEnd()) !=
                                QByteArray(platform::AdminAuthorization::kReadyMessage)) {
        details += u"the runner did not start\n"_s;
        return 1;
    }
    auto request = [](HXPrivilegedOperation operation, const QStringList &arguments) {
        return HXPrivilegedRequest{operation, arguments}.encoded();
    };
    const QByteArray truncated = request(HXPrivilegedOperation::Remove, {kDecoy}).chopped(2);
    QByteArray unknownKind = request(HXPrivilegedOperation::Remove, {kDecoy});
    unknownKind[7] = 100;
    QByteArray huge = request(HXPrivilegedOperation::Remove, {kDecoy});
    huge[16] = '\x7f';  // the first argument's length, far beyond the message
    const QMap<QString, QByteArray> requests{
        {u"garbage"_s, QByteArray("rm -rf /Library/Decoy")},
        {u"truncated"_s, truncated},
        {u"unknown kind"_s, unknownKind},
        {u"oversized length"_s, huge},
        {u"run a shell"_s,
         request(HXPrivilegedOperation::RunHelper, {u"/bin/sh"_s, u"-c"_s, u"touch /Library/Decoy/pwned"_s})},
        {u"run a shell by a relative name"_s,
         request(HXPrivilegedOperation::RunHelper, {u"../../../../bin/sh"_s})},
        {u"remove the home"_s, request(HXPrivilegedOperation::Remove, {u"/Users/anna/"_s})},
        {u"remove the home's Library"_s,
         request(HXPrivilegedOperation::RemoveTree, {u"/Users/anna//Library"_s})},
        {u"move the Preferences"_s,
         request(HXPrivilegedOperation::Move, {u"/Library/Preferences/"_s, u"/Users/anna/Prefs"_s})},
        {u"trash the Library"_s, request(HXPrivilegedOperation::Trash, {u"/Users/anna/Library/."_s, u"L"_s})},
        {u"trash under a climbing name"_s,
         request(HXPrivilegedOperation::Trash, {kHome + u"/Desktop"_s, u"../../x"_s})},
        {u"relative path"_s, request(HXPrivilegedOperation::Remove, {u"Library/Decoy"_s})},
        {u"copy through anna's link"_s,
         request(HXPrivilegedOperation::Copy, {kHome + u"/Desktop"_s, kHome + u"/Link/x"_s})},
    };
    annaFolder(kHome + u"/Desktop"_s);
    annaLink(kDecoy, kHome + u"/Link"_s);
    int escapes = 0;
    for (auto it = requests.cbegin(); it != requests.cend(); ++it) {
        if (!platform::writeMessage(runner.standardInputWriteEnd(), it.value())) {
            details += u"the runner went away at: "_s + it.key() + u'\n';
            return escapes + 1;
        }
        const std::optional<QByteArray> message = platform::readMessage(runner.standardOutputReadEnd());
        const std::optional<HXPrivilegedReply> reply =
            message ? HXPrivilegedReply::decoded(*message) : std::nullopt;
        if (!reply || reply->status == 0) {
            ++escapes;
            details += it.key() + u" was carried out\n"_s;
        }
    }
    runner.closeStandardInput();
    runner.waitUntilExit();
    for (const char *folder : {"/Users/anna", "/Users/anna/Library", "/Library/Preferences"})
        if (!QFileInfo(QString::fromLatin1(folder)).isDir()) {
            ++escapes;
            details += QString::fromLatin1(folder) + u" is gone\n"_s;
        }
    return escapes;
}

// Root with nobody at the console has no Trash to move anything to.
int withoutConsoleUser(QString &details)
{
    const QString item = u"/Library/NoConsole/item.txt"_s;
    QDir().mkpath(u"/Library/NoConsole/cwd"_s);
    disk::write(item, "stays\n", 0644);
    QDir::setCurrent(u"/Library/NoConsole/cwd"_s);
    const bool trashed = HXAuthorization::sharedController(false).authTrashFile(item);
    const bool deleted = HXAuthorization::sharedController(false).authTrashFile(item, true);
    const bool moved = !QDir().entryList(QDir::AllEntries | QDir::NoDotAndDotDot).isEmpty();
    if (trashed || deleted || moved || !QFileInfo::exists(item)) {
        details +=
            u"trashed=%1 deleted=%2 moved into the working folder=%3\n"_s.arg(trashed).arg(deleted).arg(
                moved);
        return 1;
    }
    return 0;
}

}  // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    const QStringList args = app.arguments();
    if (args.size() < 2 || ::geteuid() != 0)
        return 2;
    const QString name = args[1];
    const int attempts = args.value(2, u"1000"_s).toInt();
    const int seconds = args.value(3, u"60"_s).toInt();
    const passwd *anna = ::getpwnam("anna");
    if (anna == nullptr)
        return 2;
    annaUid = anna->pw_uid;
    annaGid = anna->pw_gid;
    QDir().mkpath(u"/Library/Logs/Lanternfish"_s);
    HXLog::createNewLog(u"linkattack"_s);

    makeDecoy();
    if (disk::flags(kDecoy + u"/locked.txt"_s) <= 0 && name == u"flags"_s) {
        std::printf("%s skipped: this file system keeps no immutable flag\n", qPrintable(name));
        return 0;
    }
    const QString before = decoys();
    int done = 0;
    int escapes = 0;
    QString details;
    auto judge = [&](int attempt) {
        const QString now = decoys();
        if (now == before)
            return;
        ++escapes;
        if (details.isEmpty())
            details = u"attempt %1 changed the decoy:\n%2--- it was:\n%3"_s.arg(attempt).arg(now, before);
        makeDecoy();
    };

    const QMap<QString, int (*)(QString &)> withoutRace{{u"protected"_s, protectedSpellings},
                                                        {u"runner"_s, runnerRequests},
                                                        {u"noconsole"_s, withoutConsoleUser}};
    if (withoutRace.contains(name)) {
        escapes = withoutRace[name](details);
        done = 1;
    } else {
        const Attempt attempt = attemptFor(name);
        if (!attempt)
            return 2;
        shared = static_cast<Shared *>(
            ::mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
        new (shared) Shared();
        const pid_t child = ::fork();
        if (child == 0)
            attacker(shared);
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
        // Enough root operations, and enough of anna's swaps landing among them.
        for (; (done < attempts || shared->swaps.load() < attempts) &&
               std::chrono::steady_clock::now() < deadline;
             ++done) {
            attempt(done);
            if (done % 50 == 0)  // what the attempts trashed
                cleanTrash();
            judge(done);
        }
        shared->phase.store(2);
        ::waitpid(child, nullptr, 0);
    }
    judge(done);
    HXLog::finishWriting();
    std::printf("%s attempts=%d swaps=%ld escapes=%d\n", qPrintable(name), done,
                shared ? shared->swaps.load() : 0L, escapes);
    if (!details.isEmpty())
        std::printf("%s", qPrintable(details));
    std::fflush(stdout);
    disk::setLocked(kDecoy + u"/locked.txt"_s, false);
    return escapes == 0 ? 0 : 1;
}
