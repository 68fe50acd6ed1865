// rootattack: anna against root. Root runs one class of Mendwell's operations on a
// tree anna owns while a process of hers, forked from this one, swaps folders for
// symbolic links to a root-owned decoy outside her tree (/Library/Decoy) or plants
// links where root is about to write. After each attempt the decoy is compared
// with its first snapshot (names, kinds, owners, modes, flags, link counts,
// contents, link targets) and anna's tree is searched for the decoy's secret; any
// difference is an escape. Run as root inside the test sandbox, from the bundle's
// Contents/MacOS (so the privileged runner lies beside it), with anna at the
// console:
//   rootattack CLASS ATTEMPTS SECONDS
// Racy classes: copy move trash remove mkdir zip records flags (each also tries
// its links planted before root starts). Others: protected, noconsole, runner.
// Prints "CLASS attempts=N escapes=N swaps=N planted=N unanswered=N" (attempts
// counts the racy ones, swaps anna's links put in place while root worked), a
// line per kind of attempt, and the first escape's details; exits 0 when nothing
// escaped, 1 when something did.
//
// Only the public interfaces of the file services and the privileged requests are
// used, and the tree is handled with plain system calls, so the driver keeps
// working while the layers under it are rewritten.

#include "diagnostics/HXLog.h"
#include "fs/HXFileManager.h"
#include "platform/AdminAuthorization.h"
#include "platform/ChildProcess.h"
#include "system/HXAuthorization.h"
#include "system/HXPrivilegedRequest.h"

#include <QByteArray>
#include <QCoreApplication>
#include <QCryptographicHash>
#include <QDataStream>
#include <QDir>
#include <QFile>
#include <QMap>
#include <QStringList>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <dirent.h>
#include <fcntl.h>
#include <functional>
#include <grp.h>
#include <linux/fs.h>
#include <pwd.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

const QString kDecoy = QStringLiteral("/Library/Decoy");
const QString kHome = QStringLiteral("/Users/anna");
const QString kFixtures = QStringLiteral("/Library/RootAttack");
uid_t annaUid = 0;
gid_t annaGid = 0;
// The content of the decoy's 0600 file: random bytes, so that they survive a zip
// archive's compression unchanged and cannot turn up in anna's tree by chance.
QByteArray secret;

QByteArray native(const QString &path)
{
    return QFile::encodeName(path);
}

QString home(const char *relative)
{
    return kHome + QLatin1Char('/') + QLatin1String(relative);
}

// --- Plain file-system steps, none of which follows a link

std::optional<struct stat> statOf(const QString &path)
{
    struct stat info {};
    if (::lstat(native(path).constData(), &info) != 0)
        return std::nullopt;
    return info;
}

int flagsAt(int folder, const char *name)
{
    const int fd = ::openat(folder, name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    int flags = -1;
    if (fd >= 0) {
        if (::ioctl(fd, FS_IOC_GETFLAGS, &flags) != 0)
            flags = -1;
        ::close(fd);
    }
    return flags;
}

bool setImmutableAt(int folder, const char *name, bool on)
{
    const int fd = ::openat(folder, name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0)
        return false;
    int flags = 0;
    bool ok = ::ioctl(fd, FS_IOC_GETFLAGS, &flags) == 0;
    if (ok && ((flags & FS_IMMUTABLE_FL) != 0) != on) {
        flags = on ? (flags | FS_IMMUTABLE_FL) : (flags & ~FS_IMMUTABLE_FL);
        ok = ::ioctl(fd, FS_IOC_SETFLAGS, &flags) == 0;
    }
    ::close(fd);
    return ok;
}

bool setImmutable(const QString &path, bool on)
{
    return setImmutableAt(AT_FDCWD, native(path).constData(), on);
}

QList<QByteArray> namesIn(int folder)
{
    QList<QByteArray> names;
    const int fd = ::openat(folder, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    DIR *dir = fd >= 0 ? ::fdopendir(fd) : nullptr;
    if (dir == nullptr) {
        if (fd >= 0)
            ::close(fd);
        return names;
    }
    while (const dirent *entry = ::readdir(dir)) {
        const QByteArray name(entry->d_name);
        if (name != "." && name != "..")
            names.append(name);
    }
    ::closedir(dir);
    std::sort(names.begin(), names.end());
    return names;
}

// Opens the folder PATH one component at a time, refusing every link on the way.
int openFolder(const QString &path)
{
    int fd = ::open("/", O_PATH | O_DIRECTORY | O_CLOEXEC);
    for (const QString &component : path.split(QLatin1Char('/'), Qt::SkipEmptyParts)) {
        const int next =
            ::openat(fd, native(component).constData(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        ::close(fd);
        if (next < 0)
            return -1;
        fd = next;
    }
    return fd;
}

// Removes NAME in FOLDER with everything below it, locked items included.
void removeAt(int folder, const char *name)
{
    struct stat info {};
    if (::fstatat(folder, name, &info, AT_SYMLINK_NOFOLLOW) != 0)
        return;
    if (!S_ISLNK(info.st_mode))
        setImmutableAt(folder, name, false);
    if (S_ISDIR(info.st_mode)) {
        const int inner = ::openat(folder, name, O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        if (inner >= 0) {
            for (const QByteArray &entry : namesIn(inner))
                removeAt(inner, entry.constData());
            ::close(inner);
        }
        ::unlinkat(folder, name, AT_REMOVEDIR);
    } else {
        ::unlinkat(folder, name, 0);
    }
}

void removeTree(const QString &path)
{
    const int parent = openFolder(QFileInfo(path).path());
    if (parent < 0)
        return;
    removeAt(parent, native(QFileInfo(path).fileName()).constData());
    ::close(parent);
}

void writeFile(const QString &path, const QByteArray &contents, mode_t mode, uid_t owner, gid_t group)
{
    ::unlink(native(path).constData());
    const int fd =
        ::open(native(path).constData(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode);
    if (fd < 0)
        return;
    if (::write(fd, contents.constData(), static_cast<size_t>(contents.size())) != contents.size())
        std::fprintf(stderr, "short write to %s\n", native(path).constData());
    ::fchmod(fd, mode);
    ::fchown(fd, owner, group);
    ::close(fd);
}

// Folders of anna's (each one made here is handed to her), her files and links.
void annaFolder(const QString &path)
{
    QString sofar;
    for (const QString &component : path.split(QLatin1Char('/'), Qt::SkipEmptyParts)) {
        sofar += QLatin1Char('/') + component;
        if (::mkdir(native(sofar).constData(), 0755) == 0)
            ::chown(native(sofar).constData(), annaUid, annaGid);
    }
}

void annaFile(const QString &path, const QByteArray &contents = "anna's own\n")
{
    annaFolder(QFileInfo(path).path());
    writeFile(path, contents, 0644, annaUid, annaGid);
}

void annaLink(const QString &target, const QString &path)
{
    annaFolder(QFileInfo(path).path());
    ::symlink(native(target).constData(), native(path).constData());
    ::lchown(native(path).constData(), annaUid, annaGid);
}

void rootFolder(const QString &path)
{
    QDir().mkpath(path);
}

// The folders every attempt starts from, mended when an earlier attempt took them
// away, and a marker in each protected one so that emptying it shows.
const QStringList kProtectedFolders{kHome, home("Library"), home("Library/Preferences"),
                                    QStringLiteral("/Library/Preferences")};

void mendFolder(const QString &path, bool anna)
{
    const std::optional<struct stat> info = statOf(path);
    if (info && S_ISDIR(info->st_mode))
        return;
    if (info)
        removeTree(path);
    if (anna)
        annaFolder(path);
    else
        rootFolder(path);
}

void mendBase()
{
    for (const char *folder :
         {"", "Library", "Library/Preferences", "Library/Caches", "Library/Logs", "Desktop"})
        mendFolder(*folder ? home(folder) : kHome, true);
    mendFolder(QStringLiteral("/Library/Preferences"), false);
    for (const QString &folder : kProtectedFolders) {
        const QString marker = folder + QStringLiteral("/.rootattack-marker");
        if (!statOf(marker)) {
            const bool anna = folder.startsWith(kHome);
            writeFile(marker, "marker\n", 0644, anna ? annaUid : 0, anna ? annaGid : 0);
        }
    }
}

// The protected folders and their markers, as they should be; empty when intact.
QString protectedDamage()
{
    QString damage;
    for (const QString &folder : kProtectedFolders) {
        const std::optional<struct stat> info = statOf(folder);
        if (!info || !S_ISDIR(info->st_mode))
            damage += folder + QStringLiteral(" is gone\n");
        else if (!statOf(folder + QStringLiteral("/.rootattack-marker")))
            damage += folder + QStringLiteral(" was emptied\n");
    }
    return damage;
}

// --- The decoy

void makeDecoy()
{
    removeTree(kDecoy);
    rootFolder(kDecoy + QStringLiteral("/sub"));
    ::chmod(native(kDecoy).constData(), 0755);
    ::chmod(native(kDecoy + QStringLiteral("/sub")).constData(), 0755);
    writeFile(kDecoy + QStringLiteral("/secret"), secret, 0600, 0, 0);
    // Names the operations look for, so that a step through a link finds something.
    for (const char *name : {"item.txt", "pref.xml", "locked.txt", "sub/inner.txt", "sub/pref.xml"})
        writeFile(kDecoy + QLatin1Char('/') + QLatin1String(name), QByteArray("decoy ") + name + '\n', 0644,
                  0, 0);
    setImmutable(kDecoy + QStringLiteral("/locked.txt"), true);
}

using Snapshot = QMap<QString, QString>;

void snapshotAt(int folder, const char *name, const QString &relative, Snapshot &snapshot)
{
    struct stat info {};
    if (::fstatat(folder, name, &info, AT_SYMLINK_NOFOLLOW) != 0)
        return;
    QString line = QStringLiteral("mode=%1 owner=%2:%3 links=%4")
                       .arg(info.st_mode, 0, 8)
                       .arg(info.st_uid)
                       .arg(info.st_gid)
                       .arg(info.st_nlink);
    if (!S_ISLNK(info.st_mode))
        line += QStringLiteral(" immutable=%1").arg((flagsAt(folder, name) & FS_IMMUTABLE_FL) != 0);
    if (S_ISLNK(info.st_mode)) {
        char target[4096];
        const ssize_t length = ::readlinkat(folder, name, target, sizeof target);
        line += QStringLiteral(" target=") + QString::fromLocal8Bit(target, std::max<ssize_t>(length, 0));
    } else if (S_ISREG(info.st_mode)) {
        QCryptographicHash hash(QCryptographicHash::Sha256);
        const int fd = ::openat(folder, name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
        char buffer[65536];
        for (ssize_t got = 0; fd >= 0 && (got = ::read(fd, buffer, sizeof buffer)) > 0;)
            hash.addData(QByteArrayView(buffer, got));
        if (fd >= 0)
            ::close(fd);
        line += QStringLiteral(" sha256=") + QString::fromLatin1(hash.result().toHex().left(16));
    }
    snapshot.insert(relative, line);
    if (S_ISDIR(info.st_mode)) {
        const int inner = ::openat(folder, name, O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        if (inner < 0)
            return;
        for (const QByteArray &entry : namesIn(inner))
            snapshotAt(inner, entry.constData(), relative + QLatin1Char('/') + QString::fromLocal8Bit(entry),
                       snapshot);
        ::close(inner);
    }
}

Snapshot snapshotOf(const QString &path)
{
    Snapshot snapshot;
    const int parent = openFolder(QFileInfo(path).path());
    if (parent >= 0) {
        snapshotAt(parent, native(QFileInfo(path).fileName()).constData(), path, snapshot);
        ::close(parent);
    }
    return snapshot;
}

QString differences(const Snapshot &before, const Snapshot &now)
{
    QString text;
    for (auto it = before.cbegin(); it != before.cend(); ++it) {
        if (!now.contains(it.key()))
            text += QStringLiteral("  removed %1 (%2)\n").arg(it.key(), it.value());
        else if (now.value(it.key()) != it.value())
            text += QStringLiteral("  changed %1: %2 -> %3\n").arg(it.key(), it.value(), now.value(it.key()));
    }
    for (auto it = now.cbegin(); it != now.cend(); ++it)
        if (!before.contains(it.key()))
            text += QStringLiteral("  added %1 (%2)\n").arg(it.key(), it.value());
    return text;
}

// The first file below PATH (not through links) holding the decoy's secret.
QString leakBelow(int folder, const char *name, const QString &path)
{
    struct stat info {};
    if (::fstatat(folder, name, &info, AT_SYMLINK_NOFOLLOW) != 0)
        return QString();
    if (S_ISREG(info.st_mode) && info.st_size >= secret.size() && info.st_size < (64 << 20)) {
        QByteArray contents;
        const int fd = ::openat(folder, name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
        char buffer[65536];
        for (ssize_t got = 0; fd >= 0 && (got = ::read(fd, buffer, sizeof buffer)) > 0;)
            contents.append(buffer, got);
        if (fd >= 0)
            ::close(fd);
        return contents.contains(secret) ? path : QString();
    }
    if (!S_ISDIR(info.st_mode))
        return QString();
    const int inner = ::openat(folder, name, O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    QString found;
    if (inner >= 0) {
        for (const QByteArray &entry : namesIn(inner))
            if (found.isEmpty())
                found = leakBelow(inner, entry.constData(),
                                  path + QLatin1Char('/') + QString::fromLocal8Bit(entry));
        ::close(inner);
    }
    return found;
}

QString leakedInto(const QString &path)
{
    const int parent = openFolder(QFileInfo(path).path());
    if (parent < 0)
        return QString();
    const QString found = leakBelow(parent, native(QFileInfo(path).fileName()).constData(), path);
    ::close(parent);
    return found;
}

// --- anna's side

enum class Swap {
    None,
    Folder,  // rename the folder away, a link to the decoy in its place, back again
    File,    // keep renaming a fresh link over whatever root puts at the path
};

struct Shared {
    std::atomic<int> active{0};  // root is working
    std::atomic<int> round{0};
    std::atomic<int> busyRound{-1};  // the last round anna took part in
    std::atomic<int> idleRound{0};   // the last round she has finished
    std::atomic<int> quit{0};
    std::atomic<long> swaps{0};  // links put in place while root worked
    Swap swap = Swap::None;
    char path[512]{};
    char away[520]{};
    char target[512]{};
};

Shared *shared = nullptr;

[[noreturn]] void attacker()
{
    if (::setgroups(0, nullptr) != 0 || ::setresgid(annaGid, annaGid, annaGid) != 0 ||
        ::setresuid(annaUid, annaUid, annaUid) != 0)
        ::_exit(3);
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    unsigned spin = 1;
    int lastRound = -1;
    for (;;) {
        const int round = shared->round.load();
        if (shared->quit.load())
            ::_exit(0);
        if (!shared->active.load()) {
            shared->idleRound.store(round);
            ::usleep(50);
            continue;
        }
        // Root is let go once her first cycle of the round is over; what she
        // does from then on counts.
        const bool counts = std::exchange(lastRound, round) == round;
        if (counts)
            shared->busyRound.store(round);
        // How long the link stays varies, from a blink to some microseconds, so
        // that root meets it at every step.
        spin = spin * 1103515245u + 12345u;
        const unsigned hold = (spin >> 16) % ((spin & 0x100) ? 400 : 20000);
        if (shared->swap == Swap::Folder) {
            if (::rename(shared->path, shared->away) != 0)
                continue;
            if (::symlink(shared->target, shared->path) == 0) {
                shared->swaps.fetch_add(counts ? 1 : 0);
                for (unsigned i = 0; i < hold; ++i)
                    asm volatile("" ::: "memory");
                ::unlink(shared->path);
            }
            ::rename(shared->away, shared->path);
        } else {
            struct stat info {};
            if (::lstat(shared->path, &info) == 0 && S_ISLNK(info.st_mode))
                continue;
            ::unlink(shared->away);
            if (::symlink(shared->target, shared->away) == 0 && ::rename(shared->away, shared->path) == 0)
                shared->swaps.fetch_add(counts ? 1 : 0);
        }
    }
}

// Runs OPERATION while anna swaps; when it returns she has stopped and the path
// is back as she left it.
void whileAnnaSwaps(Swap swap, const QString &path, const QString &target,
                    const std::function<void()> &operation)
{
    shared->swap = swap;
    std::snprintf(shared->path, sizeof shared->path, "%s", native(path).constData());
    std::snprintf(shared->away, sizeof shared->away, "%s",
                  native(path + QStringLiteral(".away")).constData());
    std::snprintf(shared->target, sizeof shared->target, "%s", native(target).constData());
    // Root starts once anna is at work, so that even a short operation meets her,
    // and at a random point of her cycle.
    const int round = shared->round.load();
    shared->active.store(1);
    while (shared->busyRound.load() != round)
        ::sched_yield();
    static unsigned phase = 7;
    phase = phase * 1103515245u + 12345u;
    for (unsigned i = (phase >> 16) % 20000; i > 0; --i)
        asm volatile("" ::: "memory");
    operation();
    shared->active.store(0);
    shared->round.store(round + 1);
    while (shared->idleRound.load() != round + 1)
        ::usleep(10);
    const std::optional<struct stat> now = statOf(path);
    if (swap == Swap::Folder && now && S_ISLNK(now->st_mode))
        ::unlink(native(path).constData());
    if (swap == Swap::Folder && statOf(path + QStringLiteral(".away")) && !statOf(path))
        ::rename(native(path + QStringLiteral(".away")).constData(), native(path).constData());
}

// --- The attempts of each class

// One of root's operations, under the name the report gives it.
struct Operation {
    QString name;
    std::function<void()> run;
};

struct Attempt {
    Operation operation;
    QString attack;  // what anna does
    Swap swap = Swap::None;
    QString path{};    // what she swaps
    QString target{};  // for a link to what
};

struct AttackClass {
    // Makes attempt N's tree and says what root and anna do.
    std::function<Attempt(int n)> racy;
    // Attempts whose links are planted before root starts.
    std::vector<std::function<Attempt()>> planted;
    // What is cleaned after each attempt.
    QStringList work;
};

HXAuthorization &auth()
{
    return HXAuthorization::sharedController(false);
}

// Root's operation in its own form (NAME) or, with PRIVILEGED, the privileged one.
Operation either(bool privileged, const char *name, std::function<void()> own, const char *privilegedName,
                 std::function<void()> privilegedForm)
{
    if (privileged)
        return {QLatin1String(privilegedName), std::move(privilegedForm)};
    return {QLatin1String(name), std::move(own)};
}

const QString kDecoyFile = kDecoy + QStringLiteral("/secret");

AttackClass copyClass()
{
    const QString source = home("Copy/source");
    const QString destination = home("Copy/destination");
    auto tree = [source](int files) {
        for (int i = 0; i < files; ++i)
            annaFile(source + QStringLiteral("/f%1").arg(i));
        annaFile(source + QStringLiteral("/inner/notes.txt"));
    };
    auto copy = [destination](bool privileged, const QString &from) {
        return either(
            privileged, "copyFile", [=] { HXFileManager::copyFile(from, destination, false); },
            "authCopyFile", [=] { auth().authCopyFile(from, destination); });
    };
    AttackClass attack;
    attack.work = {home("Copy")};
    attack.racy = [=](int n) {
        // One attempt in 250 copies a bigger tree, so root works longer.
        tree(n % 250 == 0 ? 1500 : 6);
        const Operation operation = copy(n % 2 == 1, source);
        switch (n % 6) {
        case 0:
        case 1:
            return Attempt{operation, QStringLiteral("destination folder swapped"), Swap::Folder, destination,
                           kDecoy};
        case 2:
        case 3:
            return Attempt{operation,
                           QStringLiteral("destination file replaced by a link to the decoy's file"),
                           Swap::File, destination + QStringLiteral("/f0"), kDecoyFile};
        default:
            return Attempt{operation, QStringLiteral("source sub-folder swapped"), Swap::Folder,
                           source + QStringLiteral("/inner"), kDecoy};
        }
    };
    for (const bool privileged : {false, true}) {
        attack.planted.push_back([=] {
            tree(6);
            annaLink(kDecoy, destination);
            return Attempt{copy(privileged, source),
                           QStringLiteral("destination planted as a link to the decoy")};
        });
        attack.planted.push_back([=] {
            tree(6);
            annaLink(kDecoy, source + QStringLiteral("/evil"));
            return Attempt{copy(privileged, source), QStringLiteral("source holding a link to the decoy")};
        });
        attack.planted.push_back([=] {
            annaLink(kDecoyFile, home("Copy/link"));
            return Attempt{copy(privileged, home("Copy/link")),
                           QStringLiteral("source planted as a link to the decoy's file")};
        });
    }
    return attack;
}

AttackClass moveClass()
{
    const QString from = home("Move/from/item.txt");
    const QString to = home("Move/to/item.txt");
    auto move = [from, to](bool privileged) {
        return either(
            privileged, "moveFile", [=] { HXFileManager::moveFile(from, to, false); }, "authMoveFile",
            [=] { auth().authMoveFile(from, to); });
    };
    const QString fromFolder = QFileInfo(from).path();
    const QString toFolder = QFileInfo(to).path();
    AttackClass attack;
    attack.work = {home("Move")};
    attack.racy = [=](int n) {
        annaFile(from);
        annaFolder(toFolder);
        if (n % 4 < 2)
            return Attempt{move(n % 2 == 1), QStringLiteral("destination folder swapped"), Swap::Folder,
                           toFolder, kDecoy};
        return Attempt{move(n % 2 == 1), QStringLiteral("source folder swapped"), Swap::Folder, fromFolder,
                       kDecoy};
    };
    for (const bool privileged : {false, true}) {
        attack.planted.push_back([=] {
            annaFile(from);
            annaLink(kDecoy, toFolder);
            return Attempt{move(privileged), QStringLiteral("destination folder planted as a link")};
        });
        attack.planted.push_back([=] {
            annaFolder(toFolder);
            annaLink(kDecoy, fromFolder);
            return Attempt{move(privileged), QStringLiteral("source folder planted as a link")};
        });
    }
    return attack;
}

AttackClass trashClass()
{
    const QString folder = home("Library/Caches/T");
    const QString item = folder + QStringLiteral("/item.txt");
    const QString prefs = home("Library/Preferences");
    const std::vector<Operation> trashing{
        {QStringLiteral("trashFile"), [=] { HXFileManager::trashFile(item, false); }},
        {QStringLiteral("authTrashFile"), [=] { auth().authTrashFile(item); }},
        {QStringLiteral("trashDirectoryContents"),
         [=] { HXFileManager::trashDirectoryContents(folder, false); }},
        {QStringLiteral("authTrashFolderContents"), [=] { auth().authTrashFolderContents(folder); }},
    };
    const std::vector<Operation> matching{
        {QStringLiteral("trashFilesNamed"),
         [=] { HXFileManager::trashFilesNamed(QStringLiteral("pref.xml"), prefs); }},
        {QStringLiteral("trashFilesOfType"),
         [=] { HXFileManager::trashFilesOfType(QStringLiteral("XML"), prefs); }},
    };
    // anna's preferences: sub-folders to walk, and a link to the decoy among them.
    auto preferences = [prefs] {
        for (const char *sub : {"S1", "S2", "S3"})
            annaFile(prefs + QLatin1Char('/') + QLatin1String(sub) + QStringLiteral("/pref.xml"));
        annaLink(kDecoy, prefs + QStringLiteral("/evil"));
    };
    AttackClass attack;
    attack.work = {folder, home(".local")};
    for (const char *name : {"S1", "S2", "S3", "S2.away", "evil"})
        attack.work << prefs + QLatin1Char('/') + QLatin1String(name);
    attack.racy = [=](int n) {
        if (n % 6 < 4) {
            annaFile(item);
            annaFile(folder + QStringLiteral("/other.txt"));
            return Attempt{trashing[n % 6], QStringLiteral("folder of the item swapped"), Swap::Folder,
                           folder, kDecoy};
        }
        preferences();
        return Attempt{matching[n % 6 - 4],
                       QStringLiteral("sub-folder swapped mid-walk, Preferences/evil planted"), Swap::Folder,
                       prefs + QStringLiteral("/S2"), kDecoy};
    };
    for (const Operation &operation : trashing)
        attack.planted.push_back([=] {
            annaLink(kDecoy, folder);
            return Attempt{operation, QStringLiteral("folder of the item planted as a link")};
        });
    for (const Operation &operation : matching)
        attack.planted.push_back([=] {
            preferences();
            return Attempt{operation, QStringLiteral("Preferences/evil planted")};
        });
    return attack;
}

AttackClass removeClass()
{
    const QString folder = home("Library/Caches/R");
    const QString prefs = home("Library/Preferences");
    auto remove = [](bool privileged, const QString &path) {
        return either(
            privileged, "removeFile", [=] { HXFileManager::removeFile(path, false); }, "authRemoveFile",
            [=] { auth().authRemoveFile(path); });
    };
    AttackClass attack;
    attack.work = {folder};
    attack.racy = [=](int n) {
        annaFile(folder + QStringLiteral("/sub/item.txt"));
        annaFile(folder + QStringLiteral("/sub/inner.txt"));
        annaFile(folder + QStringLiteral("/sub/deeper/pref.xml"));
        const bool whole = n % 4 < 2;
        return Attempt{remove(n % 2 == 1, whole ? folder : folder + QStringLiteral("/sub/item.txt")),
                       whole ? QStringLiteral("sub-folder swapped while its folder goes")
                             : QStringLiteral("folder of the item swapped"),
                       Swap::Folder, folder + QStringLiteral("/sub"), kDecoy};
    };
    // Library/Preferences itself a link to the decoy: what root removes inside it.
    for (const bool privileged : {false, true})
        for (const char *inside : {"item.txt", "sub"})
            attack.planted.push_back([=] {
                ::rename(native(prefs).constData(), native(prefs + QStringLiteral(".real")).constData());
                annaLink(kDecoy, prefs);
                Operation operation = remove(privileged, prefs + QLatin1Char('/') + QLatin1String(inside));
                const std::function<void()> removal = operation.run;
                operation.run = [=] {
                    removal();
                    ::unlink(native(prefs).constData());
                    ::rename(native(prefs + QStringLiteral(".real")).constData(), native(prefs).constData());
                };
                return Attempt{operation,
                               QStringLiteral("Library/Preferences planted as a link, %1 removed in it")
                                   .arg(QLatin1String(inside))};
            });
    return attack;
}

AttackClass mkdirClass()
{
    const QString b = home("Make/a/b");
    auto make = [](bool privileged, const QString &path) {
        return either(
            privileged, "createDirectory", [=] { HXFileManager::createDirectory(path, false); },
            "authCreateDir", [=] { auth().authCreateDir(path); });
    };
    AttackClass attack;
    attack.work = {home("Make")};
    attack.racy = [=](int n) {
        annaFolder(b);
        const QString path = b + (n % 4 < 2 ? QStringLiteral("/c") : QStringLiteral("/c/d/e"));
        return Attempt{make(n % 2 == 1, path), QStringLiteral("a/b swapped"), Swap::Folder, b, kDecoy};
    };
    for (const bool privileged : {false, true})
        attack.planted.push_back([=] {
            annaLink(kDecoy, b);
            return Attempt{make(privileged, b + QStringLiteral("/c/d")),
                           QStringLiteral("a/b planted as a link")};
        });
    return attack;
}

AttackClass zipClass()
{
    const QString desktop = home("Desktop");
    const QString logs = home("Logs");
    const QString archive = desktop + QStringLiteral("/Logs.zip");
    const QString unpacked = desktop + QStringLiteral("/Out");
    const Operation compress{QStringLiteral("compressFile"),
                             [=] { HXFileManager::compressFile(logs, archive); }};
    const Operation decompress{QStringLiteral("decompressFile"),
                               [=] { HXFileManager::decompressFile(archive, unpacked); }};
    auto sources = [logs, archive] {
        annaFile(logs + QStringLiteral("/a.log"), "log\n");
        annaFile(logs + QStringLiteral("/b/c.log"), "log\n");
        annaFile(archive, "an old archive\n");
    };
    // A real archive to unpack, made once by root outside anna's tree.
    auto packed = [archive] {
        QFile fixture(kFixtures + QStringLiteral("/Logs.zip"));
        annaFile(archive, fixture.open(QIODevice::ReadOnly) ? fixture.readAll() : QByteArray());
    };
    AttackClass attack;
    attack.work = {desktop, logs, home(".local")};
    attack.racy = [=](int n) {
        switch (n % 4) {
        case 0:
            sources();
            return Attempt{compress, QStringLiteral("Logs.zip replaced by a link to the decoy's file"),
                           Swap::File, archive, kDecoyFile};
        case 1:
            sources();
            return Attempt{compress, QStringLiteral("Desktop swapped"), Swap::Folder, desktop, kDecoy};
        case 2:
            sources();
            return Attempt{compress, QStringLiteral("folder being zipped swapped"), Swap::Folder, logs,
                           kDecoy};
        default:
            packed();
            return Attempt{decompress, QStringLiteral("folder being unpacked into swapped"), Swap::Folder,
                           unpacked, kDecoy};
        }
    };
    attack.planted.push_back([=] {
        sources();
        ::unlink(native(archive).constData());
        annaLink(kDecoyFile, archive);
        return Attempt{compress, QStringLiteral("Logs.zip planted as a link to the decoy's file")};
    });
    attack.planted.push_back([=] {
        annaFile(logs + QStringLiteral("/a.log"));
        removeTree(desktop);
        annaLink(kDecoy, desktop);
        return Attempt{compress, QStringLiteral("Desktop planted as a link")};
    });
    attack.planted.push_back([=] {
        annaFolder(desktop);
        annaLink(kDecoy, logs);
        return Attempt{compress, QStringLiteral("folder to zip planted as a link")};
    });
    return attack;
}

AttackClass recordsClass()
{
    const QString trash = home(".local/share/Trash");
    const QString item = home("Library/Caches/record.txt");
    auto trashIt = [item](bool privileged) {
        return either(
            privileged, "trashFile", [=] { HXFileManager::trashFile(item, false); }, "authTrashFile",
            [=] { auth().authTrashFile(item); });
    };
    AttackClass attack;
    attack.work = {item, home(".local")};
    attack.racy = [=](int n) {
        annaFile(item);
        annaFolder(trash + QStringLiteral("/files"));
        annaFolder(trash + QStringLiteral("/info"));
        const QString swapped = n % 4 < 2 ? QStringLiteral("info") : QStringLiteral("files");
        return Attempt{trashIt(n % 2 == 1), QStringLiteral("Trash/%1 swapped").arg(swapped), Swap::Folder,
                       trash + QLatin1Char('/') + swapped, kDecoy};
    };
    for (const bool privileged : {false, true})
        for (const char *folder : {"info", "files"})
            attack.planted.push_back([=] {
                annaFile(item);
                annaFolder(trash);
                annaLink(kDecoy, trash + QLatin1Char('/') + QLatin1String(folder));
                return Attempt{trashIt(privileged),
                               QStringLiteral("Trash/%1 planted as a link").arg(QLatin1String(folder))};
            });
    return attack;
}

AttackClass flagsClass()
{
    const QString folder = home("Flags");
    const std::vector<Operation> changes{
        {QStringLiteral("unlockFolder"), [=] { HXFileManager::unlockFolder(folder); }},
        {QStringLiteral("lockFolder"), [=] { HXFileManager::lockFolder(folder); }},
        {QStringLiteral("unlockFile"),
         [=] { HXFileManager::unlockFile(folder + QStringLiteral("/sub/locked.txt")); }},
        {QStringLiteral("lockFile"),
         [=] { HXFileManager::lockFile(folder + QStringLiteral("/sub/item.txt")); }},
    };
    AttackClass attack;
    attack.work = {folder};
    attack.racy = [=](int n) {
        annaFile(folder + QStringLiteral("/sub/locked.txt"));
        annaFile(folder + QStringLiteral("/sub/item.txt"));
        annaFile(folder + QStringLiteral("/top.txt"));
        setImmutable(folder + QStringLiteral("/sub/locked.txt"), true);
        return Attempt{changes[n % 4], QStringLiteral("sub-folder swapped"), Swap::Folder,
                       folder + QStringLiteral("/sub"), kDecoy};
    };
    for (const Operation &operation : changes)
        attack.planted.push_back([=] {
            annaFile(folder + QStringLiteral("/top.txt"));
            annaLink(kDecoy, folder + QStringLiteral("/sub"));
            return Attempt{operation, QStringLiteral("sub-folder planted as a link")};
        });
    return attack;
}

std::optional<AttackClass> attackClass(const QString &name)
{
    if (name == QLatin1String("copy"))
        return copyClass();
    if (name == QLatin1String("move"))
        return moveClass();
    if (name == QLatin1String("trash"))
        return trashClass();
    if (name == QLatin1String("remove"))
        return removeClass();
    if (name == QLatin1String("mkdir"))
        return mkdirClass();
    if (name == QLatin1String("zip"))
        return zipClass();
    if (name == QLatin1String("records"))
        return recordsClass();
    if (name == QLatin1String("flags"))
        return flagsClass();
    return std::nullopt;
}

// --- Counting

struct Tally {
    int attempts = 0;
    int planted = 0;
    int escapes = 0;
    int unanswered = 0;
    // Each kind of attempt, in the order first met.
    struct Count {
        int attempts = 0;
        long swaps = 0;
        int escapes = 0;
    };
    QStringList kinds;
    QMap<QString, Count> byKind;
    QString details;  // the first escape
    QString notes;
    Snapshot decoy;

    // Compares the decoy with its snapshot, the protected folders with what they
    // held, and searches anna's tree for the secret; mends whatever the attempt
    // broke, so counting goes on. EXTRA: what the caller saw go wrong.
    void judge(const QString &kind, const QString &attempt, const QString &extra = QString())
    {
        if (!byKind.contains(kind))
            kinds << kind;
        ++byKind[kind].attempts;
        const Snapshot now = snapshotOf(kDecoy);
        const QString leak = leakedInto(kHome);
        const QString damage = protectedDamage();
        QString found = extra;
        if (now != decoy)
            found += QStringLiteral(" the decoy changed:\n") + differences(decoy, now);
        if (!leak.isEmpty())
            found += QStringLiteral(" the decoy's secret is readable in anna's tree at %1\n").arg(leak);
        if (!damage.isEmpty())
            found += QLatin1Char(' ') + damage;
        if (found.isEmpty())
            return;
        ++escapes;
        ++byKind[kind].escapes;
        if (details.isEmpty())
            details = kind + attempt + QLatin1Char(':') + found;
        if (!leak.isEmpty())
            removeTree(leak);
        if (now != decoy)
            makeDecoy();
        mendBase();
    }

    // Every kind of attempt with ALL, else those that escaped.
    QString breakdown(bool all) const
    {
        QString text;
        for (const QString &kind : kinds)
            if (all || byKind.value(kind).escapes > 0)
                text += QStringLiteral("  %1: attempts=%2 swaps=%3 escapes=%4\n")
                            .arg(kind)
                            .arg(byKind.value(kind).attempts)
                            .arg(byKind.value(kind).swaps)
                            .arg(byKind.value(kind).escapes);
        return text;
    }
};

void runAttempt(const Attempt &attempt)
{
    if (attempt.swap == Swap::None)
        attempt.operation.run();
    else
        whileAnnaSwaps(attempt.swap, attempt.path, attempt.target, attempt.operation.run);
}

void racyClass(const AttackClass &attack, int attempts, int seconds, Tally &tally)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    auto clean = [&attack] {
        for (const QString &path : attack.work)
            removeTree(path);
    };
    for (const auto &make : attack.planted) {
        mendBase();
        const Attempt attempt = make();
        runAttempt(attempt);
        tally.judge(QStringLiteral("planted, %1: %2").arg(attempt.operation.name, attempt.attack), QString());
        clean();
        ++tally.planted;
    }
    // As many attempts as asked for, and at least as many of anna's links put in
    // place while root worked; the time cap only keeps a slow machine from hanging.
    for (int n = 0;
         (n < attempts || shared->swaps.load() < attempts) && std::chrono::steady_clock::now() < deadline;
         ++n) {
        mendBase();
        const Attempt attempt = attack.racy(n);
        const QString kind = QStringLiteral("%1: %2").arg(attempt.operation.name, attempt.attack);
        const long swapsBefore = shared->swaps.load();
        runAttempt(attempt);
        tally.judge(kind, QStringLiteral(" (attempt %1)").arg(n));
        tally.byKind[kind].swaps += shared->swaps.load() - swapsBefore;
        clean();
        ++tally.attempts;
    }
}

// --- The classes without a race

const QStringList kSpellings{
    QStringLiteral("/Users/anna/"),          QStringLiteral("/Users/anna//Library"),
    QStringLiteral("/Users/anna/./Library"), QStringLiteral("/Users/anna/Library/."),
    QStringLiteral("/Library/Preferences/"), QStringLiteral("/Users/anna/Library/Preferences/")};

const QString kMovedTo = QStringLiteral("/Library/Moved");

// Every operation that refuses a protected folder, under every spelling of one.
void protectedSpellings(Tally &tally)
{
    const std::vector<std::pair<QString, std::function<bool(const QString &)>>> operations{
        {QStringLiteral("authRemoveFile"), [](const QString &path) { return auth().authRemoveFile(path); }},
        {QStringLiteral("authTrashFile"), [](const QString &path) { return auth().authTrashFile(path); }},
        {QStringLiteral("authTrashFolderContents"),
         [](const QString &path) { return auth().authTrashFolderContents(path); }},
        {QStringLiteral("authMoveFile"),
         [](const QString &path) { return auth().authMoveFile(path, kMovedTo); }},
    };
    for (const auto &[operation, perform] : operations)
        for (const QString &spelling : kSpellings) {
            mendBase();
            const bool done = perform(spelling);
            ++tally.attempts;
            tally.judge(QStringLiteral("%1(\"%2\")").arg(operation, spelling), QString(),
                        done ? QStringLiteral(" it was not refused\n") : QString());
            removeTree(kMovedTo);
            removeTree(home(".local"));
        }
}

// Root with nobody at the console has no Trash to move anything to.
void withoutConsoleUser(Tally &tally)
{
    const QString folder = QStringLiteral("/Library/NoConsole");
    const QString item = folder + QStringLiteral("/item.txt");
    rootFolder(folder + QStringLiteral("/cwd"));
    writeFile(item, "stays\n", 0644, 0, 0);
    QDir::setCurrent(folder + QStringLiteral("/cwd"));
    const bool trashed = auth().authTrashFile(item);
    QDir::setCurrent(QStringLiteral("/"));
    const QStringList landed = QDir(folder + QStringLiteral("/cwd"))
                                   .entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden);
    QString found;
    if (trashed)
        found += QStringLiteral(" authTrashFile answered YES\n");
    if (!statOf(item))
        found += QStringLiteral(" the item left its folder\n");
    if (!landed.isEmpty())
        found += QStringLiteral(" the working folder received: %1\n").arg(landed.join(QStringLiteral(", ")));
    ++tally.attempts;
    tally.judge(QStringLiteral("authTrashFile without a console user"), QString(), found);
    removeTree(folder);
}

// The runner's request format changes; requests are built through its own
// struct, whichever members it has today.
template <typename Request = HXPrivilegedRequest>
QByteArray fileRequest(HXPrivilegedOperation operation, const QStringList &arguments)
{
    Request request;
    request.operation = operation;
    request.arguments = arguments;
    return request.encoded();
}

template <typename Request = HXPrivilegedRequest>
QByteArray programRequest(const QString &program, const QStringList &arguments)
{
    Request request;
    using Operation = decltype(request.operation);
    if constexpr (requires(Request r) { r.tool; }) {
        request.operation = Operation::Exec;
        request.tool = program;
        request.arguments = arguments;
    } else {
        request.operation = Operation::RunHelper;
        request.arguments = QStringList{program} + arguments;
    }
    return request.encoded();
}

// None when the runner takes no trash request.
template <typename Request = HXPrivilegedRequest>
std::optional<QByteArray> trashRequest(const QString &path, const QString &name)
{
    Request request;
    using Operation = decltype(request.operation);
    if constexpr (requires { Operation::Trash; }) {
        request.operation = Operation::Trash;
        request.arguments = {path, name};
        return request.encoded();
    } else {
        return std::nullopt;
    }
}

struct Runner {
    std::unique_ptr<platform::ChildProcess> process;

    bool start()
    {
        process = std::make_unique<platform::ChildProcess>(HXAuthorization::runnerPath(), QStringList());
        process->setStandardInput(platform::ChildProcess::Stream::Pipe);
        process->setStandardOutput(platform::ChildProcess::Stream::Pipe);
        process->setWorkingDirectory(QStringLiteral("/"));
        return process->launch() && platform::readMessage(process->standardOutputReadEnd()) ==
                                        QByteArray(platform::AdminAuthorization::kReadyMessage);
    }
    // The status the runner answers, none when it ended without answering.
    std::optional<qint32> send(const QByteArray &message)
    {
        if (!process || !platform::writeMessage(process->standardInputWriteEnd(), message))
            return std::nullopt;
        const std::optional<QByteArray> reply = platform::readMessage(process->standardOutputReadEnd());
        if (!reply)
            return std::nullopt;
        qint32 status = 0;
        QDataStream stream(*reply);
        stream >> status;
        return stream.status() == QDataStream::Ok ? std::optional<qint32>(status) : std::nullopt;
    }
    void stop()
    {
        if (!process)
            return;
        process->closeStandardInput();
        process->waitUntilExit();
        process.reset();
    }
};

// Requests written by hand on the runner's input, as a client of the runner that
// anna controls could write them. Each must be refused with a non-zero status.
// A root-owned path named outright (remove /Library/Decoy/secret) is not among
// them: acting on such paths is what an administrator authorizes the runner
// for. The same paths reached through a link of anna's are.
void runnerRequests(Tally &tally)
{
    const QString link = home("Link");
    const QString gift = home("Desktop/gift.txt");
    QByteArray random(64, '\0');
    QFile urandom(QStringLiteral("/dev/urandom"));
    if (urandom.open(QIODevice::ReadOnly))
        random = urandom.read(64);
    QByteArray truncated = fileRequest(HXPrivilegedOperation::Remove, {kDecoy + QStringLiteral("/sub/x")});
    truncated.chop(2);
    const QString sub = kDecoy + QStringLiteral("/sub");
    std::vector<std::pair<QString, QByteArray>> requests{
        {QStringLiteral("run /bin/sh -c \"touch /Library/Decoy/pwned\""),
         programRequest(QStringLiteral("/bin/sh"),
                        {QStringLiteral("-c"), QStringLiteral("touch /Library/Decoy/pwned")})},
        {QStringLiteral("run a shell by a climbing name"),
         programRequest(QStringLiteral("../../../../bin/sh"),
                        {QStringLiteral("-c"), QStringLiteral("touch /Library/Decoy/pwned")})},
        {QStringLiteral("remove the decoy's file through anna's link"),
         fileRequest(HXPrivilegedOperation::Remove, {link + QStringLiteral("/secret")})},
        {QStringLiteral("empty the decoy through anna's link"),
         fileRequest(HXPrivilegedOperation::RemoveTree, {link + QStringLiteral("/sub")})},
        {QStringLiteral("copy into the decoy through anna's link"),
         fileRequest(HXPrivilegedOperation::Copy, {gift, link + QStringLiteral("/gift.txt")})},
        {QStringLiteral("copy the decoy's file out through anna's link"),
         fileRequest(HXPrivilegedOperation::Copy,
                     {link + QStringLiteral("/secret"), home("Desktop/stolen")})},
        {QStringLiteral("move the decoy's file out through anna's link"),
         fileRequest(HXPrivilegedOperation::Move,
                     {link + QStringLiteral("/secret"), home("Desktop/stolen")})},
        {QStringLiteral("move into the decoy through anna's link"),
         fileRequest(HXPrivilegedOperation::Move, {gift, link + QStringLiteral("/gift.txt")})},
        {QStringLiteral("make a folder in the decoy through anna's link"),
         fileRequest(HXPrivilegedOperation::MakeFolder, {link + QStringLiteral("/made")})},
        {QStringLiteral("remove a climbing path"),
         fileRequest(HXPrivilegedOperation::Remove, {QStringLiteral("/Users/anna/../../Library/Decoy/sub")})},
        {QStringLiteral("remove a relative path"),
         fileRequest(HXPrivilegedOperation::Remove, {QStringLiteral("Library/Decoy/sub")})},
        {QStringLiteral("a truncated request"), truncated},
        {QStringLiteral("a request with bytes after it"),
         fileRequest(HXPrivilegedOperation::Remove, {sub}) + QByteArray("\0\0\0\0", 4)},
        {QStringLiteral("a request with an extra argument"),
         fileRequest(HXPrivilegedOperation::Remove, {sub, sub})},
        {QStringLiteral("garbage text"), QByteArray("rm -rf /Library/Decoy")},
        {QStringLiteral("random bytes"), random},
        {QStringLiteral("an empty message"), QByteArray()},
    };
    for (const QString &spelling : kSpellings) {
        requests.emplace_back(QStringLiteral("remove \"%1\"").arg(spelling),
                              fileRequest(HXPrivilegedOperation::Remove, {spelling}));
        requests.emplace_back(QStringLiteral("empty \"%1\"").arg(spelling),
                              fileRequest(HXPrivilegedOperation::RemoveTree, {spelling}));
        requests.emplace_back(QStringLiteral("move \"%1\"").arg(spelling),
                              fileRequest(HXPrivilegedOperation::Move, {spelling, kMovedTo}));
        if (const std::optional<QByteArray> trash = trashRequest(spelling, QStringLiteral("Moved")))
            requests.emplace_back(QStringLiteral("trash \"%1\"").arg(spelling), *trash);
    }
    if (const std::optional<QByteArray> trash =
            trashRequest(gift, QStringLiteral("../../../../Library/Decoy/x")))
        requests.emplace_back(QStringLiteral("trash under a climbing name"), *trash);

    Runner runner;
    for (const auto &[what, message] : requests) {
        mendBase();
        annaFile(gift, "a gift\n");
        annaLink(kDecoy, link);
        if (!runner.process && !runner.start()) {
            tally.details += QStringLiteral("the runner did not start\n");
            ++tally.escapes;
            return;
        }
        const std::optional<qint32> status = runner.send(message);
        ++tally.attempts;
        QString found;
        if (!status) {
            ++tally.unanswered;
            tally.notes += QStringLiteral("unanswered: %1 (the runner ended)\n").arg(what);
            runner.stop();
        } else if (*status == 0) {
            found = QStringLiteral(" carried out (status 0)\n");
        }
        if (statOf(home("Desktop/stolen")))
            found += QStringLiteral(" anna received %1\n").arg(home("Desktop/stolen"));
        if (statOf(kMovedTo))
            found += QStringLiteral(" %1 appeared\n").arg(kMovedTo);
        tally.judge(QStringLiteral("runner request: %1").arg(what), QString(), found);
        removeTree(home("Desktop/stolen"));
        removeTree(kMovedTo);
        removeTree(link);
        removeTree(home(".local"));
    }
    // A message cut short before its end, and the input closed: the runner must
    // end without acting on any part of it.
    if (runner.process || runner.start()) {
        const QByteArray whole = fileRequest(HXPrivilegedOperation::RemoveTree, {sub});
        QByteArray cut = whole.left(whole.size() - 4);
        const int length = static_cast<int>(whole.size());
        QByteArray header(4, '\0');
        for (int i = 0; i < 4; ++i)
            header[i] = static_cast<char>(length >> (24 - 8 * i));
        cut.prepend(header);
        if (::write(runner.process->standardInputWriteEnd(), cut.constData(),
                    static_cast<size_t>(cut.size())) != cut.size())
            tally.notes += QStringLiteral("the runner took no cut message\n");
        runner.stop();
        ++tally.attempts;
        tally.judge(QStringLiteral("runner request: a message cut short, then the input closed"), QString());
    }
}

// A zip archive of a small folder, for the attempts that unpack one.
void makeFixtures()
{
    removeTree(kFixtures);
    rootFolder(kFixtures + QStringLiteral("/Logs/b"));
    writeFile(kFixtures + QStringLiteral("/Logs/a.log"), "log\n", 0644, 0, 0);
    writeFile(kFixtures + QStringLiteral("/Logs/b/c.log"), "log\n", 0644, 0, 0);
    HXFileManager::compressFile(kFixtures + QStringLiteral("/Logs"), kFixtures + QStringLiteral("/Logs.zip"));
}

}  // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    const QStringList args = app.arguments();
    if (args.size() != 4 || ::geteuid() != 0) {
        std::fprintf(stderr, "usage (as root): rootattack CLASS ATTEMPTS SECONDS\n");
        return 2;
    }
    const QString name = args[1];
    const int attempts = args[2].toInt();
    const int seconds = args[3].toInt();
    const passwd *anna = ::getpwnam("anna");
    if (anna == nullptr) {
        std::fprintf(stderr, "no account anna\n");
        return 2;
    }
    annaUid = anna->pw_uid;
    annaGid = anna->pw_gid;
    QDir::setCurrent(QStringLiteral("/"));
    QDir().mkpath(QStringLiteral("/Library/Logs/Lanternfish"));
    HXLog::createNewLog(QStringLiteral("rootattack"));

    QFile urandom(QStringLiteral("/dev/urandom"));
    if (urandom.open(QIODevice::ReadOnly))
        secret = urandom.read(256);
    if (secret.size() != 256)
        return 2;
    mendBase();
    makeDecoy();
    Tally tally;
    tally.decoy = snapshotOf(kDecoy);
    if (!tally.decoy.value(kDecoy + QStringLiteral("/locked.txt")).contains(QLatin1String("immutable=1"))) {
        if (name == QLatin1String("flags")) {
            std::printf("flags skipped: this file system keeps no immutable flag\n");
            return 0;
        }
        std::fprintf(stderr, "note: no immutable flag here; the decoy's locked file is not locked\n");
    }

    if (name == QLatin1String("protected")) {
        protectedSpellings(tally);
    } else if (name == QLatin1String("noconsole")) {
        withoutConsoleUser(tally);
    } else if (name == QLatin1String("runner")) {
        runnerRequests(tally);
    } else {
        const std::optional<AttackClass> attack = attackClass(name);
        if (!attack) {
            std::fprintf(stderr, "unknown class %s\n", qPrintable(name));
            return 2;
        }
        if (name == QLatin1String("zip"))
            makeFixtures();
        shared = static_cast<Shared *>(
            ::mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
        new (shared) Shared();
        std::fflush(nullptr);
        const pid_t child = ::fork();
        if (child == 0)
            attacker();
        racyClass(*attack, attempts, seconds, tally);
        shared->quit.store(1);
        ::waitpid(child, nullptr, 0);
    }
    HXLog::finishWriting();
    std::printf("%s attempts=%d escapes=%d swaps=%ld planted=%d unanswered=%d\n", qPrintable(name),
                tally.attempts, tally.escapes, shared ? shared->swaps.load() : 0L, tally.planted,
                tally.unanswered);
    std::printf("%s", qPrintable(tally.breakdown(shared != nullptr)));
    if (!tally.details.isEmpty())
        std::printf("first escape: %s", qPrintable(tally.details));
    std::printf("%s", qPrintable(tally.notes));
    std::fflush(stdout);
    return tally.escapes == 0 && tally.unanswered == 0 ? 0 : 1;
}
