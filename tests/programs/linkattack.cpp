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
#include <fcntl.h>
#include <functional>
#include <grp.h>
#include <linux/fs.h>
#include <pwd.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

const QString kDecoy = QStringLiteral("/Library/Decoy");
// A root file on the same file system as anna's home, for second names there.
const QString kLinkedDecoy = QStringLiteral("/Users/Decoy");
const QString kHome = QStringLiteral("/Users/anna");
uid_t annaUid = 0;
gid_t annaGid = 0;

// --- The decoy and its fingerprint

QByteArray encode(const QString &path)
{
    return QFile::encodeName(path);
}

void writeFile(const QString &path, const QByteArray &contents, mode_t mode)
{
    QFile file(path);
    if (file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        file.write(contents);
    file.close();
    ::chmod(encode(path).constData(), mode);
}

bool setImmutable(const QString &path, bool on)
{
    const int fd = ::open(encode(path).constData(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
    int flags = 0;
    bool ok = fd >= 0 && ::ioctl(fd, FS_IOC_GETFLAGS, &flags) == 0;
    if (ok) {
        flags = on ? (flags | FS_IMMUTABLE_FL) : (flags & ~FS_IMMUTABLE_FL);
        ok = ::ioctl(fd, FS_IOC_SETFLAGS, &flags) == 0;
    }
    if (fd >= 0)
        ::close(fd);
    return ok;
}

int flagsOf(const QString &path)
{
    const int fd = ::open(encode(path).constData(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    int flags = -1;
    if (fd >= 0) {
        if (::ioctl(fd, FS_IOC_GETFLAGS, &flags) != 0)
            flags = -1;
        ::close(fd);
    }
    return flags;
}

// Everything about the decoy an escape could change: names, kinds, owners,
// modes, link counts, flags, contents.
QString fingerprint(const QString &path, const QString &relative = QStringLiteral("."))
{
    struct stat info {};
    if (::lstat(encode(path).constData(), &info) != 0)
        return relative + QStringLiteral(" missing\n");
    QString line = QStringLiteral("%1 mode=%2 uid=%3 gid=%4 links=%5 flags=%6")
                       .arg(relative)
                       .arg(info.st_mode, 0, 8)
                       .arg(info.st_uid)
                       .arg(info.st_gid)
                       .arg(info.st_nlink)
                       .arg(flagsOf(path));
    if (S_ISREG(info.st_mode)) {
        QFile file(path);
        line +=
            QStringLiteral(" content=") +
            QString::fromLatin1((file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("?")).toHex());
    }
    line += QLatin1Char('\n');
    if (S_ISDIR(info.st_mode)) {
        QStringList names =
            QDir(path).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden | QDir::System);
        names.sort();
        for (const QString &name : names)
            line += fingerprint(path + QLatin1Char('/') + name, relative + QLatin1Char('/') + name);
    }
    return line;
}

void makeDecoy()
{
    if (QFileInfo::exists(kDecoy + QStringLiteral("/locked.txt")))
        setImmutable(kDecoy + QStringLiteral("/locked.txt"), false);
    QDir(kDecoy).removeRecursively();
    QDir().mkpath(kDecoy + QStringLiteral("/sub"));
    ::chmod(encode(kDecoy).constData(), 0755);
    writeFile(kDecoy + QStringLiteral("/secret"), "root's secret\n", 0600);
    for (const char *name : {"item.txt", "pref.xml", "Workspace.plist", "sub/inner.txt", "locked.txt"})
        writeFile(kDecoy + QLatin1Char('/') + QLatin1String(name), QByteArray("decoy ") + name + '\n', 0644);
    setImmutable(kDecoy + QStringLiteral("/locked.txt"), true);
    QDir(kLinkedDecoy).removeRecursively();
    QDir().mkpath(kLinkedDecoy);
    ::chmod(encode(kLinkedDecoy).constData(), 0700);
    writeFile(kLinkedDecoy + QStringLiteral("/shadow"), "root's other secret\n", 0600);
}

QString decoys()
{
    return fingerprint(kDecoy) + fingerprint(kLinkedDecoy, QStringLiteral("linked"));
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
    QStringList made;
    for (QString probe = path; !QFileInfo::exists(probe); probe = QFileInfo(probe).path())
        made.prepend(probe);
    QDir().mkpath(path);
    for (const QString &folder : made)
        ::lchown(encode(folder).constData(), annaUid, annaGid);
}

void annaFile(const QString &path, const QByteArray &contents = "anna's\n")
{
    annaFolder(QFileInfo(path).path());
    writeFile(path, contents, 0644);
    ::lchown(encode(path).constData(), annaUid, annaGid);
}

void annaLink(const QString &target, const QString &path)
{
    ::symlink(encode(target).constData(), encode(path).constData());
    ::lchown(encode(path).constData(), annaUid, annaGid);
}

// Clears the locked flag of PATH and of everything below it, links left alone.
void unlockEverything(const QString &path)
{
    setImmutable(path, false);
    QDirIterator it(path, QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden | QDir::System,
                    QDirIterator::Subdirectories);
    while (it.hasNext())
        if (!QFileInfo(it.next()).isSymLink())
            setImmutable(it.filePath(), false);
}

void cleanTrash()
{
    clean(kHome + QStringLiteral("/.local/share/Trash/files"));
    clean(kHome + QStringLiteral("/.local/share/Trash/info"));
}

// Runs the bundle's helper tool NAME as root, as a repair does, to its end.
void runTool(const QString &name, const QStringList &arguments)
{
    const QString tool = QFileInfo(HXAuthorization::runnerPath()).path() + QLatin1Char('/') + name;
    QList<QByteArray> encoded{encode(tool)};
    for (const QString &argument : arguments)
        encoded.append(encode(argument));
    std::vector<char *> argv;
    for (QByteArray &argument : encoded)
        argv.push_back(argument.data());
    argv.push_back(nullptr);
    const pid_t child = ::fork();
    if (child == 0) {
        const int null = ::open("/dev/null", O_WRONLY);
        ::dup2(null, STDERR_FILENO);
        ::execv(argv[0], argv.data());
        ::_exit(127);
    }
    ::waitpid(child, nullptr, 0);
}

using Attempt = std::function<void(int attempt)>;

Attempt attemptFor(const QString &name)
{
    HXAuthorization &auth = HXAuthorization::sharedController(false);
    const QString caches = kHome + QStringLiteral("/Library/Caches");
    if (name == QLatin1String("copy"))
        return [&auth](int n) {
            const QString source = kHome + QStringLiteral("/src");
            const QString destination = kHome + QStringLiteral("/dst");
            for (int i = 0; i < (n % 250 == 0 ? 1500 : 6); ++i)
                annaFile(source + QStringLiteral("/f%1").arg(i));
            annaFolder(source + QStringLiteral("/inner"));
            annaFile(source + QStringLiteral("/inner/secret"));
            // Half the attempts swap the folder root made, half a file root made in it.
            const bool folder = n % 2 == 0;
            swapWhile(folder ? destination : destination + QStringLiteral("/f0"),
                      folder ? kDecoy : kDecoy + QStringLiteral("/secret"), folder ? 0 : 1, [&] {
                          if (n % 4 < 2)
                              HXFileManager::copyFile(source, destination, false);
                          else
                              auth.authCopyFile(source, destination);
                      });
            clean(source);
            clean(destination);
        };
    if (name == QLatin1String("move"))
        return [&auth](int n) {
            const QString from = kHome + QStringLiteral("/msrc");
            const QString to = kHome + QStringLiteral("/mdst");
            annaFile(from + QStringLiteral("/item.txt"));
            annaFolder(to);
            const bool swapSource = n % 2 == 1;
            swapWhile(swapSource ? from : to, kDecoy, 0, [&] {
                if (n % 4 < 2)
                    HXFileManager::moveFile(from + QStringLiteral("/item.txt"),
                                            to + QStringLiteral("/item.txt"), false);
                else
                    auth.authMoveFile(from + QStringLiteral("/item.txt"), to + QStringLiteral("/item.txt"));
            });
            clean(from);
            clean(to);
        };
    if (name == QLatin1String("trash"))
        return [&auth, caches](int n) {
            const QString folder = caches + QStringLiteral("/T");
            annaFile(folder + QStringLiteral("/item.txt"));
            swapWhile(folder, kDecoy, 0, [&] {
                if (n % 2 == 0)
                    HXFileManager::trashFile(folder + QStringLiteral("/item.txt"), false);
                else
                    auth.authTrashFile(folder + QStringLiteral("/item.txt"));
            });
            clean(folder);
            if (n % 50 == 0)
                cleanTrash();
        };
    if (name == QLatin1String("trashmatching"))
        return [](int n) {
            const QString prefs = kHome + QStringLiteral("/Library/Preferences/P");
            for (const char *sub : {"S1", "S2", "S3"})
                annaFile(prefs + QLatin1Char('/') + QLatin1String(sub) + QStringLiteral("/pref.xml"));
            // A link planted in advance, and a sub-folder swapped while root walks.
            annaLink(kDecoy, prefs + QStringLiteral("/evil"));
            swapWhile(prefs + QStringLiteral("/S2"), kDecoy, 0, [&] {
                if (n % 2 == 0)
                    HXFileManager::trashFilesNamed(QStringLiteral("pref.xml"), prefs);
                else
                    HXFileManager::trashFilesOfType(QStringLiteral("XML"), prefs);
            });
            clean(prefs);
            if (n % 50 == 0)
                cleanTrash();
        };
    if (name == QLatin1String("remove"))
        return [&auth, caches](int n) {
            const QString folder = caches + QStringLiteral("/R");
            annaFile(folder + QStringLiteral("/sub/item.txt"));
            annaFile(folder + QStringLiteral("/sub/inner.txt"));
            // Planted: a link in the middle of the path.
            annaLink(kDecoy, caches + QStringLiteral("/PrefLink"));
            if (n % 10 == 0)
                HXFileManager::removeFile(caches + QStringLiteral("/PrefLink/item.txt"), true);
            swapWhile(folder + QStringLiteral("/sub"), kDecoy, 0, [&] {
                if (n % 2 == 0)
                    HXFileManager::removeFile(folder, false);
                else
                    auth.authRemoveFile(folder + QStringLiteral("/sub/item.txt"));
            });
            clean(folder);
            clean(caches + QStringLiteral("/PrefLink"));
        };
    if (name == QLatin1String("mkdir"))
        return [&auth](int n) {
            const QString a = kHome + QStringLiteral("/a");
            annaFolder(a + QStringLiteral("/b"));
            swapWhile(a + QStringLiteral("/b"), kDecoy, 0, [&] {
                if (n % 2 == 0)
                    HXFileManager::createDirectory(a + QStringLiteral("/b/c/d"), false);
                else
                    auth.authCreateDir(a + QStringLiteral("/b/c/d"));
            });
            clean(a);
        };
    if (name == QLatin1String("zip"))
        return [](int n) {
            const QString desktop = kHome + QStringLiteral("/Desktop");
            const QString source = kHome + QStringLiteral("/Logs");
            annaFile(source + QStringLiteral("/a.log"));
            annaFile(desktop + QStringLiteral("/Logs.zip"), "old archive");
            if (n % 2 == 0)  // a link planted where the archive goes, once the old one is trashed
                swapWhile(desktop + QStringLiteral("/Logs.zip"), kDecoy + QStringLiteral("/secret"), 1, [&] {
                    HXFileManager::compressFile(source, desktop + QStringLiteral("/Logs.zip"));
                });
            else
                swapWhile(desktop, kDecoy, 0, [&] {
                    HXFileManager::compressFile(source, desktop + QStringLiteral("/Logs.zip"));
                });
            clean(desktop);
            clean(source);
            if (n % 50 == 0)
                cleanTrash();
        };
    if (name == QLatin1String("records"))
        return [&auth, caches](int n) {
            const QString item = caches + QStringLiteral("/rec.txt");
            annaFile(item);
            const QString trash = kHome + QStringLiteral("/.local/share/Trash");
            annaFolder(trash + QStringLiteral("/files"));
            annaFolder(trash + QStringLiteral("/info"));
            swapWhile(trash + (n % 2 == 0 ? QStringLiteral("/info") : QStringLiteral("/files")), kDecoy, 0,
                      [&] {
                          if (n % 4 < 2)
                              HXFileManager::trashFile(item, false);
                          else
                              auth.authTrashFile(item);
                      });
            clean(item);
            if (n % 50 == 0)
                cleanTrash();
        };
    if (name == QLatin1String("flags"))
        return [](int n) {
            const QString folder = kHome + QStringLiteral("/F");
            annaFile(folder + QStringLiteral("/sub/locked.txt"));
            // Enough items that anna's swaps land while root walks, even on a busy machine.
            for (int i = 0; i < 40; ++i)
                annaFile(folder + QStringLiteral("/sub/item%1.txt").arg(i));
            swapWhile(folder + QStringLiteral("/sub"), kDecoy, 0, [&] {
                switch (n % 3) {
                case 0:
                    HXFileManager::unlockFolder(folder);
                    break;
                case 1:
                    HXFileManager::lockFolder(folder);
                    break;
                default:
                    HXFileManager::unlockFile(folder + QStringLiteral("/sub/locked.txt"));
                    break;
                }
            });
            HXFileManager::unlockFolder(folder);
            // A folder left locked (say under the name anna swapped it to) would keep
            // her from swapping anything in later attempts.
            unlockEverything(folder);
            clean(folder);
        };
    if (name == QLatin1String("permissiontool"))
        return [](int n) {
            const QString adobe = kHome + QStringLiteral("/Library/Application Support/Adobe");
            const QString sub = adobe + QStringLiteral("/Common/Sub");
            for (int i = 0; i < 20; ++i) {
                const QString item = sub + QStringLiteral("/root%1.prefs").arg(i);
                annaFile(item);
                ::lchown(encode(item).constData(), 0, 0);
                ::chmod(encode(item).constData(), 0600);
            }
            // Planted beforehand: a second name of a root file, as a system without
            // protected hard links would let anna make.
            if (::link(encode(kLinkedDecoy + QStringLiteral("/shadow")).constData(),
                       encode(adobe + QStringLiteral("/Common/shadow")).constData()) != 0)
                std::printf("could not plant a hard link: %s\n", std::strerror(errno));
            swapWhile(n % 2 == 0 ? sub : adobe + QStringLiteral("/Common"), kDecoy, 0,
                      [] { runTool(QStringLiteral("permissiontool"), {}); });
            clean(adobe);
        };
    if (name == QLatin1String("trashtool"))
        return [caches](int n) {
            const QString folder = caches + QStringLiteral("/T");
            annaFile(folder + QStringLiteral("/item.txt"));
            annaFile(folder + QStringLiteral("/other.txt"));
            const QString trash = kHome + QStringLiteral("/.local/share/Trash");
            annaFolder(trash + QStringLiteral("/files"));
            annaFolder(trash + QStringLiteral("/info"));
            const QString swapped = n % 3 == 0   ? folder
                                    : n % 3 == 1 ? trash + QStringLiteral("/files")
                                                 : trash + QStringLiteral("/info");
            swapWhile(swapped, kDecoy, 0, [&] {
                if (n % 2 == 0)
                    runTool(QStringLiteral("trashtool"), {folder + QStringLiteral("/item.txt")});
                else
                    runTool(QStringLiteral("trashtool"), {QStringLiteral("-dircontents"), folder});
            });
            clean(folder);
            if (n % 50 == 0)
                cleanTrash();
        };
    return nullptr;
}

// --- The classes without a race

// Every spelling of a protected folder, through every operation that refuses one.
int protectedSpellings(QString &details)
{
    HXAuthorization &auth = HXAuthorization::sharedController(false);
    int escapes = 0;
    const QStringList spellings{
        QStringLiteral("/Users/anna/"),          QStringLiteral("/Users/anna//Library"),
        QStringLiteral("/Users/anna/./Library"), QStringLiteral("/Users/anna/Library/."),
        QStringLiteral("/Library/Preferences/"), QStringLiteral("/Users/anna/Library/Preferences/")};
    for (const QString &spelling : spellings) {
        const bool any = auth.authRemoveFile(spelling) || auth.authTrashFile(spelling) ||
                         auth.authTrashFolderContents(spelling) ||
                         auth.authMoveFile(spelling, kHome + QStringLiteral("/moved"));
        if (any || !QFileInfo(platform::absoluteItemPath(spelling)).isDir()) {
            ++escapes;
            details += spelling + QStringLiteral(" was not refused\n");
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
        details += QStringLiteral("the runner did not start\n");
        return 1;
    }
    auto request = [](HXPrivilegedOperation operation, const QStringList &arguments) {
        HXPrivilegedRequest made;
        made.operation = operation;
        made.arguments = arguments;
        return made.encoded();
    };
    QByteArray truncated = request(HXPrivilegedOperation::Remove, {kDecoy});
    truncated.chop(2);
    QByteArray unknownKind = request(HXPrivilegedOperation::Remove, {kDecoy});
    unknownKind[7] = 100;
    QByteArray huge = request(HXPrivilegedOperation::Remove, {kDecoy});
    huge[16] = '\x7f';  // the first argument's length, far beyond the message
    const QMap<QString, QByteArray> requests{
        {QStringLiteral("garbage"), QByteArray("rm -rf /Library/Decoy")},
        {QStringLiteral("truncated"), truncated},
        {QStringLiteral("unknown kind"), unknownKind},
        {QStringLiteral("oversized length"), huge},
        {QStringLiteral("run a shell"),
         request(HXPrivilegedOperation::RunHelper, {QStringLiteral("/bin/sh"), QStringLiteral("-c"),
                                                    QStringLiteral("touch /Library/Decoy/pwned")})},
        {QStringLiteral("run a shell by a relative name"),
         request(HXPrivilegedOperation::RunHelper, {QStringLiteral("../../../../bin/sh")})},
        {QStringLiteral("remove the home"),
         request(HXPrivilegedOperation::Remove, {QStringLiteral("/Users/anna/")})},
        {QStringLiteral("remove the home's Library"),
         request(HXPrivilegedOperation::RemoveTree, {QStringLiteral("/Users/anna//Library")})},
        {QStringLiteral("move the Preferences"),
         request(HXPrivilegedOperation::Move,
                 {QStringLiteral("/Library/Preferences/"), QStringLiteral("/Users/anna/Prefs")})},
        {QStringLiteral("trash the Library"),
         request(HXPrivilegedOperation::Trash,
                 {QStringLiteral("/Users/anna/Library/."), QStringLiteral("L")})},
        {QStringLiteral("trash under a climbing name"),
         request(HXPrivilegedOperation::Trash,
                 {kHome + QStringLiteral("/Desktop"), QStringLiteral("../../x")})},
        {QStringLiteral("relative path"),
         request(HXPrivilegedOperation::Remove, {QStringLiteral("Library/Decoy")})},
        {QStringLiteral("copy through anna's link"),
         request(HXPrivilegedOperation::Copy,
                 {kHome + QStringLiteral("/Desktop"), kHome + QStringLiteral("/Link/x")})},
    };
    annaFolder(kHome + QStringLiteral("/Desktop"));
    annaLink(kDecoy, kHome + QStringLiteral("/Link"));
    int escapes = 0;
    for (auto it = requests.cbegin(); it != requests.cend(); ++it) {
        if (!platform::writeMessage(runner.standardInputWriteEnd(), it.value())) {
            details += QStringLiteral("the runner went away at: ") + it.key() + QLatin1Char('\n');
            return escapes + 1;
        }
        const std::optional<QByteArray> message = platform::readMessage(runner.standardOutputReadEnd());
        const std::optional<HXPrivilegedReply> reply =
            message ? HXPrivilegedReply::decoded(*message) : std::nullopt;
        if (!reply || reply->status == 0) {
            ++escapes;
            details += it.key() + QStringLiteral(" was carried out\n");
        }
    }
    runner.closeStandardInput();
    runner.waitUntilExit();
    for (const char *folder : {"/Users/anna", "/Users/anna/Library", "/Library/Preferences"})
        if (!QFileInfo(QString::fromLatin1(folder)).isDir()) {
            ++escapes;
            details += QString::fromLatin1(folder) + QStringLiteral(" is gone\n");
        }
    return escapes;
}

// Root with nobody at the console has no Trash to move anything to.
int withoutConsoleUser(QString &details)
{
    const QString item = QStringLiteral("/Library/NoConsole/item.txt");
    QDir().mkpath(QFileInfo(item).path());
    writeFile(item, "stays\n", 0644);
    QDir::setCurrent(QStringLiteral("/Library/NoConsole"));
    QDir().mkpath(QStringLiteral("/Library/NoConsole/cwd"));
    QDir::setCurrent(QStringLiteral("/Library/NoConsole/cwd"));
    const bool trashed = HXAuthorization::sharedController(false).authTrashFile(item);
    const bool deleted = HXAuthorization::sharedController(false).authTrashFile(item, true);
    const bool moved = !QDir().entryList(QDir::AllEntries | QDir::NoDotAndDotDot).isEmpty();
    if (trashed || deleted || moved || !QFileInfo::exists(item)) {
        details += QStringLiteral("trashed=%1 deleted=%2 moved into the working folder=%3\n")
                       .arg(trashed)
                       .arg(deleted)
                       .arg(moved);
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
    const int attempts = args.value(2, QStringLiteral("1000")).toInt();
    const int seconds = args.value(3, QStringLiteral("60")).toInt();
    const passwd *anna = ::getpwnam("anna");
    if (anna == nullptr)
        return 2;
    annaUid = anna->pw_uid;
    annaGid = anna->pw_gid;
    QDir().mkpath(QStringLiteral("/Library/Logs/Lanternfish"));
    HXLog::createNewLog(QStringLiteral("linkattack"));

    makeDecoy();
    if (flagsOf(kDecoy + QStringLiteral("/locked.txt")) <= 0 && name == QLatin1String("flags")) {
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
            details = QStringLiteral("attempt %1 changed the decoy:\n%2--- it was:\n%3")
                          .arg(attempt)
                          .arg(now, before);
        makeDecoy();
    };

    if (name == QLatin1String("protected")) {
        escapes = protectedSpellings(details);
        done = 1;
    } else if (name == QLatin1String("runner")) {
        escapes = runnerRequests(details);
        done = 1;
    } else if (name == QLatin1String("noconsole")) {
        escapes = withoutConsoleUser(details);
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
    setImmutable(kDecoy + QStringLiteral("/locked.txt"), false);
    return escapes == 0 ? 0 : 1;
}
