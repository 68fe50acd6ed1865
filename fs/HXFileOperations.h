#pragma once

// Existence tests, trash, removal, folder creation, copy, move, archives and the
// desktop notices. Every mutating operation first clears the item's locked flag,
// tries as the current user and, when that fails and shouldAuth allows it, repeats
// through the privileged operations of HXAuthorization. Failures are results plus
// a log line; nothing throws. The timeout forms wait (keeping the interface alive
// on the main thread) until the file system shows the result.

#include <QString>
#include <QStringList>

#include <chrono>
#include <functional>
#include <optional>
#include <sys/types.h>

namespace HXFileManager {

bool fileExistsAtPath(const QString &path);
// Exists and is a folder (links followed; a package counts as a folder).
bool isDirectoryAtPath(const QString &path);
bool isPackageAtPath(const QString &path);
bool isSymbolicLinkAtPath(const QString &path);

// Hears of every item this process moves to the Trash, itself or through the
// administrator right: its original path, where it lies in the Trash, and its
// record. One observer per process; none by default. Called on the thread that
// trashed the item.
using HXTrashObserver =
    std::function<void(const QString &originalPath, const QString &trashedPath, const QString &infoPath)>;
void setTrashObserver(HXTrashObserver observer);

// Moves one item to the user's Trash; a missing item counts as trashed.
bool trashFile(const QString &path, bool shouldAuth = true);
bool trashFile(const QString &path, std::chrono::seconds timeout);
// Trashes every entry of a folder and keeps the folder.
bool trashDirectoryContents(const QString &path, bool shouldAuth = true);
// Trashes, recursively, the files whose extension is TYPE (any letter case) or
// whose name is NAME; folders are searched, never trashed. Returns the paths.
QStringList trashFilesOfType(const QString &type, const QString &folder);
QStringList trashFilesNamed(const QString &name, const QString &folder);

// Deletes an item outright (folders with their contents); a missing item counts
// as removed.
bool removeFile(const QString &path, bool shouldAuth = true);
bool removeFile(const QString &path, std::chrono::seconds timeout);
// True for a folder holding nothing but folders, ".DS_Store" and "Icon\r" files,
// and for anything that cannot be listed.
bool isFolderEmpty(const QString &path);
bool removeFolderIfEmpty(const QString &path);

// Creates a folder with its intermediate folders.
bool createDirectory(const QString &path, bool shouldAuth = true);
bool createDirectory(const QString &path, std::chrono::seconds timeout);
// Creates DESTINATION + the folder of SOURCE (SOURCE itself when it is a plain
// folder) and returns that path.
QString createDirectoryStructure(const QString &source, const QString &destination);

// Copies an item to a full destination path; an existing destination fails.
bool copyFile(const QString &source, const QString &destination, bool shouldAuth = true);
bool copyFile(const QString &source, const QString &destination, std::chrono::seconds timeout);
bool copyContentsOfDirectory(const QString &source, const QString &destination, std::chrono::seconds timeout);

// Moves or renames an item to a full destination path.
bool moveFile(const QString &source, const QString &destination, bool shouldAuth = true);
bool moveFile(const QString &source, const QString &destination, std::chrono::seconds timeout);

// Zips SOURCE into DESTINATION (an existing destination is trashed first); with
// includeParent the entries start with the source's own name. True when the
// destination exists afterwards.
bool compressFile(const QString &source, const QString &destination, bool includeParent = true);
// Unpacks a zip into DESTINATIONFOLDER (an existing folder is trashed first).
bool decompressFile(const QString &archive, const QString &destinationFolder);

// Tells the file browser that a folder changed.
void notifyFileSystemChanged(const QString &path);

// A reference to an existing file-system object, and back to its path (empty when
// the object is gone or another object took its place).
struct HXFSRef {
    QString path;
    dev_t device = 0;
    ino_t inode = 0;
};
std::optional<HXFSRef> stringToFSRef(const QString &path);
QString stringWithFSRef(const HXFSRef &ref);

bool registerApplicationWithLaunchServices(const QString &path);

// Creates an empty file at PATH through a temporary file and moveFile.
bool createEmptyFile(const QString &path);

}  // namespace HXFileManager
