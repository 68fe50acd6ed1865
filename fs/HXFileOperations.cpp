#include "fs/HXFileOperations.h"

#include "diagnostics/HXException.h"
#include "diagnostics/HXLog.h"
#include "fs/HXArchive.h"
#include "fs/HXFileAttributes.h"
#include "fs/HXFileNames.h"
#include "fs/HXVolumes.h"
#include "platform/Folder.h"
#include "platform/Platform.h"
#include "platform/Trash.h"
#include "platform/Workspace.h"
#include "system/HXAuthorization.h"
#include "system/HXLocalPaths.h"
#include "system/HXMainThread.h"
#include "system/HXPath.h"
#include "system/HXUsersTree.h"

#include <QCoreApplication>
#include <QFile>
#include <QFileInfo>
#include <QSaveFile>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <functional>
#include <utility>
#include <vector>
#include <mutex>
#include <thread>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using namespace std::chrono_literals;

QString errorDescription(int error, const QString &path)
{
    return QStringLiteral("%1: %2").arg(path, QString::fromLocal8Bit(std::strerror(error)));
}

// The names in FOLDER in the file system's order; an unreadable or missing folder
// has none, as the platform answers. None at all when the walk refused a link on
// the way: that folder was never looked at, so it is not known to be empty.
std::optional<QStringList> entriesOf(const QString &folder)
{
    const HXActingForUser acting(folder);
    int error = 0;
    const std::optional<platform::Folder> opened = platform::Folder::open(folder, &error);
    if (!opened && error == ELOOP) {
        HXLog::fastAppendLog(u"Unable to list folder %@: %@", folder, qt_error_string(error));
        return std::nullopt;
    }
    return opened ? opened->entries() : QStringList();
}

bool pathExists(const QString &path)
{
    struct stat info {};
    return ::stat(QFile::encodeName(path).constData(), &info) == 0;
}

// Waits until DONE holds or TIMEOUT has passed, keeping the interface alive on the
// main thread; returns whether DONE holds.
bool waitUntil(const std::function<bool()> &done, std::chrono::seconds timeout)
{
    const auto start = std::chrono::steady_clock::now();
    while (!done() && std::chrono::steady_clock::now() - start < timeout) {
        if (HXIsMainThread()) {
            if (QCoreApplication::instance() != nullptr)
                QCoreApplication::processEvents(QEventLoop::AllEvents);
            std::this_thread::sleep_for(10ms);
        } else {
            std::this_thread::sleep_for(300ms);
        }
    }
    return done();
}

}  // namespace

namespace HXFileManager {

bool fileExistsAtPath(const QString &path)
{
    return !path.isEmpty() && pathExists(path);
}

bool isDirectoryAtPath(const QString &path)
{
    struct stat info {};
    return !path.isEmpty() && ::stat(QFile::encodeName(path).constData(), &info) == 0 &&
           S_ISDIR(info.st_mode);
}

bool isPackageAtPath(const QString &path)
{
    return platform::isFilePackage(path);
}

bool isSymbolicLinkAtPath(const QString &path)
{
    char target[1];
    return !path.isEmpty() && ::readlink(QFile::encodeName(path).constData(), target, sizeof target) >= 0;
}

namespace {

std::mutex g_trashObserverMutex;
HXTrashObserver g_trashObserver;

void tellTrashObserver(const QString &path, const platform::trash::Outcome &outcome)
{
    HXTrashObserver observer;
    {
        std::lock_guard lock(g_trashObserverMutex);
        observer = g_trashObserver;
    }
    if (observer)
        observer(path, outcome.trashedPath, outcome.infoPath);
}

// The administrator's move to the Trash, heard by the observer like our own.
// Root's rights again, where root was acting as the user.
bool authTrash(const QString &path)
{
    const HXWithRootRights root;
    platform::trash::Outcome outcome;
    const bool trashed = HXAuthorization::sharedController().authTrashFile(path, false, &outcome);
    if (outcome.trashed)
        tellTrashObserver(path, outcome);
    return trashed;
}

// trashFile of the entry NAME of the opened FOLDER, known as PATH.
bool trashEntry(const platform::Folder &folder, const QString &name, const QString &path, bool shouldAuth)
{
    if (const int error = folder.setImmutable(name, false))
        HXLog::fastAppendLog(u"Unable to unlock file %@: %@", path, qt_error_string(error));
    if (!fileExistsAtPath(path))
        return true;
    const platform::trash::Outcome outcome =
        platform::trash::moveToTrash(folder, name, path, HXLocalPaths::trashDirectory());
    if (outcome.trashed) {
        tellTrashObserver(path, outcome);
        return true;
    }
    return shouldAuth && authTrash(path);
}

// Trashes, below the opened FOLDER (known as PATH), every file MATCHES accepts.
// Folders and links to folders are searched, links only as platform::Folder
// follows them (with root's rights, only root's own). OPEN holds the folders
// being searched: a link back to one of them is not searched again.
void trashMatching(const platform::Folder &folder, const QString &path,
                   const std::function<bool(const QString &)> &matches, QStringList &trashed,
                   std::vector<std::pair<dev_t, ino_t>> &open)
{
    const std::optional<struct stat> info = folder.info();
    const std::pair<dev_t, ino_t> identity{info ? info->st_dev : 0, info ? info->st_ino : 0};
    if (!info || std::find(open.begin(), open.end(), identity) != open.end())
        return;
    open.push_back(identity);
    for (const QString &name : folder.entries()) {
        const QString entry = HXPath::appendingComponent(path, name);
        if (const std::optional<platform::Folder> subfolder = folder.folder(name)) {
            // A package with the extension is searched too, never trashed whole.
            trashMatching(*subfolder, entry, matches, trashed, open);
        } else if (matches(name)) {
            trashEntry(folder, name, entry, true);
            trashed.append(entry);
        }
    }
    open.pop_back();
}

// METHOD names the operation in the log when an exception ends the search.
QStringList trashMatching(const QString &folder, const std::function<bool(const QString &)> &matches,
                          const char *method)
{
    QStringList trashed;
    try {
        const HXActingForUser acting(folder);
        std::vector<std::pair<dev_t, ino_t>> open;
        if (const std::optional<platform::Folder> opened = platform::Folder::open(folder))
            trashMatching(*opened, folder, matches, trashed, open);
    } catch (const std::exception &e) {
        HXException::logException(e, method);
    }
    return trashed;
}

}  // namespace

void setTrashObserver(HXTrashObserver observer)
{
    std::lock_guard lock(g_trashObserverMutex);
    g_trashObserver = std::move(observer);
}

namespace {

// Whether the entry of ITEM cannot even be looked at with this thread's rights.
bool isHidden(const platform::Item &item)
{
    struct stat info {};
    return ::fstatat(item.folder.descriptor(), QFile::encodeName(item.name).constData(), &info,
                     AT_SYMLINK_NOFOLLOW) != 0 &&
           errno == EACCES;
}

// trashFile with the rights this thread has; none when, acting as the user, a
// folder on the way is closed to her (then the item may exist all the same, and
// "missing" would be a wrong answer).
std::optional<bool> trashWithOwnRights(const QString &path, bool shouldAuth)
{
    int error = 0;
    // One walk to the item serves the unlocking and the move.
    const std::optional<platform::Item> item = platform::Item::open(path, &error);
    if (platform::actingUser() && (item ? isHidden(*item) : error == EACCES))
        return std::nullopt;
    if (item)
        return trashEntry(item->folder, item->name, platform::absoluteItemPath(path), shouldAuth);
    unlockFile(path);
    if (!fileExistsAtPath(path))
        return true;
    return shouldAuth && authTrash(path);
}

}  // namespace

bool trashFile(const QString &path, bool shouldAuth)
{
    try {
        {
            const HXActingForUser acting(path);
            if (const std::optional<bool> done = trashWithOwnRights(path, shouldAuth))
                return *done;
        }
        // Closed to her: the administrator's fallback, with root's rights and walk.
        const HXWithRootRights root;
        return shouldAuth && trashWithOwnRights(path, shouldAuth).value_or(false);
    } catch (const std::exception &e) {
        HXException::logException(e, "+[HXFileManager trashFile:shouldAuth:]");
        return false;
    }
}

bool trashFile(const QString &path, std::chrono::seconds timeout)
{
    if (!trashFile(path, true))
        return false;
    return waitUntil([&] { return !fileExistsAtPath(path); }, timeout);
}

bool trashDirectoryContents(const QString &path, bool shouldAuth)
{
    const std::optional<QStringList> names = entriesOf(path);
    if (!names)
        return false;
    bool all = true;
    for (const QString &name : *names)
        if (!trashFile(HXPath::appendingComponent(path, name), shouldAuth))
            all = false;
    return all;
}

QStringList trashFilesOfType(const QString &type, const QString &folder)
{
    const QString lowered = type.toLower();
    return trashMatching(
        folder, [&lowered](const QString &name) { return HXPath::extension(name).toLower() == lowered; },
        "+[HXFileManager trashFilesOfType:inFolder:]");
}

QStringList trashFilesNamed(const QString &fileName, const QString &folder)
{
    return trashMatching(
        folder, [&fileName](const QString &name) { return name == fileName; },
        "+[HXFileManager trashFilesNamed:inFolder:]");
}

namespace {

// Removes PATH (the item itself, never through a link). Returns 0 or the errno.
int removeItem(const QString &path)
{
    const HXActingForUser acting(path);
    int error = 0;
    const std::optional<platform::Item> item = platform::Item::open(path, &error);
    return item ? item->folder.removeTree(item->name) : error;
}

}  // namespace

bool removeFile(const QString &path, bool shouldAuth)
{
    try {
        unlockFile(path);
        if (!fileExistsAtPath(path))
            return true;
        const int error = removeItem(path);
        if (error == 0)
            return true;
        // Written whether or not authorizing follows.
        HXLog::appendLog(u"Error removing file: %@. Authorizing...", errorDescription(error, path));
        return shouldAuth && HXAuthorization::sharedController().authRemoveFile(path);
    } catch (const std::exception &e) {
        HXException::logException(e, "+[HXFileManager removeFile:shouldAuth:]");
        return false;
    }
}

bool removeFile(const QString &path, std::chrono::seconds timeout)
{
    if (!removeFile(path, true))
        return false;
    return waitUntil([&] { return !fileExistsAtPath(path); }, timeout);
}

bool isFolderEmpty(const QString &path)
{
    static const QString kDSStore = QStringLiteral(".DS_Store");
    static const QString kIcon = QStringLiteral("Icon\r");
    // A folder that cannot be listed is not known to be empty.
    const std::optional<QStringList> listed = entriesOf(path);
    if (!listed)
        return false;
    const QStringList &names = *listed;
    if (names.isEmpty())
        return true;
    if (names.size() == 1 && (names.first() == kDSStore || names.first() == kIcon))
        return true;
    for (const QString &name : names) {
        if (name == kDSStore || name == kIcon)
            continue;
        const QString entry = HXPath::appendingComponent(path, name);
        if (!isDirectoryAtPath(entry) || !isFolderEmpty(entry))
            return false;
    }
    return true;
}

bool removeFolderIfEmpty(const QString &path)
{
    return isFolderEmpty(path) && removeFile(path);
}

bool createDirectory(const QString &path, bool shouldAuth)
{
    try {
        if (!isDriveMountedForPath(path)) {
            platform::systemLog(QStringLiteral("Unable to create directory. Drive is not mounted."));
            return false;
        }
        int error = path.isEmpty() ? ENOENT : 0;
        if (error == 0) {
            const HXActingForUser acting(path);
            if (platform::Folder::openMakingPath(path, 0777, std::nullopt, &error))
                return true;
        }
        HXLog::appendLog(u"Error creating folder: %@. Authorizing...", errorDescription(error, path));
        return shouldAuth && HXAuthorization::sharedController().authCreateDir(path);
    } catch (const std::exception &e) {
        HXException::logException(e, "+[HXFileManager createDirectory:shouldAuth:]");
        return false;
    }
}

bool createDirectory(const QString &path, std::chrono::seconds timeout)
{
    if (!createDirectory(path, true))
        return false;
    return waitUntil([&] { return fileExistsAtPath(path); }, timeout);
}

QString createDirectoryStructure(const QString &source, const QString &destination)
{
    const QString folder = (isDirectoryAtPath(source) && !isPackageAtPath(source))
                               ? source
                               : HXPath::deletingLastComponent(source);
    const QString result = HXPath::appendingComponent(destination, folder);
    if (!fileExistsAtPath(result))
        createDirectory(result);
    return result;
}

namespace {

// Copies SOURCE to DESTINATION, which must not exist, never through a link on
// either side. A copy that fails half-way is removed. Returns 0 or the errno.
int copyItem(const QString &source, const QString &destination)
{
    const HXActingForUser acting(source, destination);
    int error = 0;
    const std::optional<platform::Item> from = platform::Item::open(source, &error);
    const std::optional<platform::Item> to = from ? platform::Item::open(destination, &error) : std::nullopt;
    if (!to)
        return error;
    if (to->exists())
        return EEXIST;
    error = from->folder.copyTree(from->name, to->folder, to->name);
    if (error != 0 && error != EEXIST)
        to->folder.removeTree(to->name);
    return error;
}

}  // namespace

bool copyFile(const QString &source, const QString &destination, bool shouldAuth)
{
    try {
        if (source.isEmpty()) {
            HXLog::appendLogAndPrint(u"Error copying file: source path is nil");
            return false;
        }
        if (destination.isEmpty()) {
            HXLog::appendLogAndPrint(u"Error copying file %@: destination path is nil", source);
            return false;
        }
        unlockFile(HXPath::deletingLastComponent(destination));
        const int error = copyItem(source, destination);
        if (error == 0)
            return true;
        HXLog::appendLog(u"Error copying file: %@. Authorizing...", errorDescription(error, destination));
        return shouldAuth && HXAuthorization::sharedController().authCopyFile(source, destination);
    } catch (const std::exception &e) {
        HXException::logException(e, "+[HXFileManager copyFile:toPath:shouldAuth:]");
        return false;
    }
}

bool copyFile(const QString &source, const QString &destination, std::chrono::seconds timeout)
{
    if (!copyFile(source, destination, true))
        return false;
    return waitUntil([&] { return fileExistsAtPath(destination); }, timeout);
}

bool copyContentsOfDirectory(const QString &source, const QString &destination, std::chrono::seconds timeout)
{
    const std::optional<QStringList> names = entriesOf(source);
    if (!names)
        return false;
    for (const QString &name : *names) {
        HXLog::fastAppendLog(u"File: %@", name);
        if (!copyFile(HXPath::appendingComponent(source, name), HXPath::appendingComponent(destination, name),
                      timeout))
            return false;
    }
    return true;
}

namespace {

// The file manager's move: a rename, or a copy and removal between file systems;
// an existing destination fails. Never through a link on either side. Returns 0
// or the errno.
int moveItem(const QString &source, const QString &destination)
{
    const HXActingForUser acting(source, destination);
    int error = 0;
    const std::optional<platform::Item> from = platform::Item::open(source, &error);
    const std::optional<platform::Item> to = from ? platform::Item::open(destination, &error) : std::nullopt;
    if (!to)
        return error;
    if (!from->exists())
        return ENOENT;
    error = from->folder.rename(from->name, to->folder, to->name, false);
    if (error != EXDEV)
        return error;
    if ((error = from->folder.copyTree(from->name, to->folder, to->name)) != 0) {
        if (error != EEXIST)
            to->folder.removeTree(to->name);
        return error;
    }
    return from->folder.removeTree(from->name);
}

}  // namespace

bool moveFile(const QString &source, const QString &destination, bool shouldAuth)
{
    try {
        if (fileExistsAtPath(destination))
            unlockFile(destination);
        // As if the destination were a folder; harmless when it is not.
        unlockFolder(HXPath::appendingComponent(destination, HXPath::lastComponent(source)));
        if (source.compare(destination, Qt::CaseInsensitive) == 0) {
            // A change of letter case only: through a free name, as a case-insensitive
            // volume needs. Where the destination name is already free (a
            // case-sensitive volume) the plain move below does it.
            const QString temporary = uniqueFilename(destination);
            if (temporary != destination && moveItem(source, temporary) == 0 &&
                moveItem(temporary, destination) == 0)
                return true;
        }
        const int error = moveItem(source, destination);
        if (error == 0)
            return true;
        HXLog::appendLog(u"Error moving file: %@.", errorDescription(error, source));
        if (!shouldAuth)
            return false;
        HXLog::appendLog(u"Authorizing...");
        return HXAuthorization::sharedController().authMoveFile(source, destination);
    } catch (const std::exception &e) {
        HXException::logException(e, "+[HXFileManager moveFile:toPath:shouldAuth:]");
        return false;
    }
}

bool moveFile(const QString &source, const QString &destination, std::chrono::seconds timeout)
{
    if (!moveFile(source, destination, true))
        return false;
    if (source.compare(destination, Qt::CaseInsensitive) == 0) {
        // The source still exists under its other letter case on a case-insensitive
        // volume, so there is nothing to wait for.
        std::this_thread::sleep_for(500us);
        return true;
    }
    return waitUntil([&] { return !fileExistsAtPath(source); }, timeout);
}

bool compressFile(const QString &source, const QString &destination, bool includeParent)
{
    try {
        if (fileExistsAtPath(destination))
            trashFile(destination);
        // Only the archive's presence counts, as with the system's archiver.
        const HXActingForUser acting(source, destination);
        HXArchive::compress(source, destination, includeParent);
        return fileExistsAtPath(destination);
    } catch (const std::exception &e) {
        HXException::logException(e, "+[HXFileManager compressFile:toDestinationFile:includeParent:]");
        return false;
    }
}

bool decompressFile(const QString &archive, const QString &destinationFolder)
{
    try {
        const HXActingForUser acting(archive, destinationFolder);
        if (fileExistsAtPath(destinationFolder))
            platform::trash::moveToTrash(destinationFolder, HXLocalPaths::trashDirectory());
        HXArchive::decompress(archive, destinationFolder);
        return fileExistsAtPath(destinationFolder);
    } catch (const std::exception &e) {
        HXException::logException(e, "+[HXFileManager decompressFile:toDestinationFolder:]");
        return false;
    }
}

void notifyFileSystemChanged(const QString &path)
{
    platform::notifyFolderChanged(path);
}

std::optional<HXFSRef> stringToFSRef(const QString &path)
{
    struct stat info {};
    if (path.isEmpty() || ::stat(QFile::encodeName(path).constData(), &info) != 0)
        return std::nullopt;
    return HXFSRef{QFileInfo(path).canonicalFilePath(), info.st_dev, info.st_ino};
}

QString stringWithFSRef(const HXFSRef &ref)
{
    struct stat info {};
    if (ref.path.isEmpty() || ::stat(QFile::encodeName(ref.path).constData(), &info) != 0 ||
        info.st_dev != ref.device || info.st_ino != ref.inode)
        return QString();
    return ref.path;
}

bool registerApplicationWithLaunchServices(const QString &path)
{
    return platform::registerApplication(path);
}

bool createEmptyFile(const QString &path)
{
    const QString temporary = HXLocalPaths::tempFile();
    QSaveFile file(temporary);
    if (!file.open(QIODevice::WriteOnly) || !file.commit())
        return false;
    return moveFile(temporary, path);
}

}  // namespace HXFileManager
