#include "fs/HXFileOperations.h"

#include "diagnostics/HXException.h"
#include "diagnostics/HXLog.h"
#include "fs/HXArchive.h"
#include "fs/HXFileAttributes.h"
#include "fs/HXFileNames.h"
#include "fs/HXFileTree.h"
#include "fs/HXTrash.h"
#include "fs/HXVolumes.h"
#include "platform/Platform.h"
#include "platform/Workspace.h"
#include "system/HXAuthorization.h"
#include "system/HXLocalPaths.h"
#include "system/HXMainThread.h"
#include "system/HXPath.h"

#include <QCoreApplication>
#include <QFile>
#include <QFileInfo>
#include <QSaveFile>

#include <cerrno>
#include <cstring>
#include <functional>
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

bool trashFile(const QString &path, bool shouldAuth)
{
    try {
        unlockFile(path);
        if (!fileExistsAtPath(path))
            return true;
        if (HXTrash::moveToTrash(path, HXLocalPaths::trashDirectory()).trashed)
            return true;
        return shouldAuth && HXAuthorization::sharedController().authTrashFile(path);
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
    bool all = true;
    for (const QString &name : HXFileTree::entries(path))
        if (!trashFile(HXPath::appendingComponent(path, name), shouldAuth))
            all = false;
    return all;
}

QStringList trashFilesOfType(const QString &type, const QString &folder)
{
    const QString lowered = type.toLower();
    QStringList trashed;
    for (const QString &name : HXFileTree::entries(folder)) {
        const QString path = HXPath::appendingComponent(folder, name);
        if (isDirectoryAtPath(path)) {
            // A package with the extension is searched too, never trashed whole.
            trashed += trashFilesOfType(lowered, path);
        } else if (HXPath::extension(name).toLower() == lowered) {
            trashFile(path);
            trashed.append(path);
        }
    }
    return trashed;
}

QStringList trashFilesNamed(const QString &fileName, const QString &folder)
{
    QStringList trashed;
    for (const QString &name : HXFileTree::entries(folder)) {
        const QString path = HXPath::appendingComponent(folder, name);
        if (isDirectoryAtPath(path)) {
            trashed += trashFilesNamed(fileName, path);
        } else if (name == fileName) {
            trashFile(path);
            trashed.append(path);
        }
    }
    return trashed;
}

bool removeFile(const QString &path, bool shouldAuth)
{
    try {
        unlockFile(path);
        if (!fileExistsAtPath(path))
            return true;
        const int error = HXFileTree::remove(path);
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
    const QStringList names = HXFileTree::entries(path);
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
        int error = 0;
        QString built = path.startsWith(QLatin1Char('/')) ? QStringLiteral("/") : QString();
        for (const QString &component : path.split(QLatin1Char('/'), Qt::SkipEmptyParts)) {
            built = HXPath::appendingComponent(built, component);
            if (::mkdir(QFile::encodeName(built).constData(), 0777) != 0 && errno != EEXIST) {
                error = errno;
                break;
            }
        }
        if (error == 0 && !isDirectoryAtPath(path))
            error = path.isEmpty() ? ENOENT : ENOTDIR;
        if (error == 0)
            return true;
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
        const int error = HXFileTree::copy(source, destination);
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
    for (const QString &name : HXFileTree::entries(source)) {
        HXLog::fastAppendLog(u"File: %@", name);
        if (!copyFile(HXPath::appendingComponent(source, name), HXPath::appendingComponent(destination, name),
                      timeout))
            return false;
    }
    return true;
}

namespace {

// The file manager's move: a rename, or a copy and removal between file systems;
// an existing destination fails. Returns 0 or the errno.
int moveItem(const QString &source, const QString &destination)
{
    const QByteArray from = QFile::encodeName(source);
    const QByteArray to = QFile::encodeName(destination);
    struct stat info {};
    if (::lstat(from.constData(), &info) != 0)
        return errno;
    if (::lstat(to.constData(), &info) == 0)
        return EEXIST;
    if (::rename(from.constData(), to.constData()) == 0)
        return 0;
    if (errno != EXDEV)
        return errno;
    if (const int error = HXFileTree::copy(source, destination); error != 0) {
        HXFileTree::remove(destination);
        return error;
    }
    return HXFileTree::remove(source);
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
        if (fileExistsAtPath(destinationFolder))
            HXTrash::moveToTrash(destinationFolder, HXLocalPaths::trashDirectory());
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
