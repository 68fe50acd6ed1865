#pragma once

// Attributes of single files and folders: sizes, the locked flag, permissions,
// extended attributes and time stamps.

#include <QDateTime>
#include <QString>

#include <cstdint>
#include <optional>

namespace HXFileManager {

// Bytes in the file, or in every file below the folder (links to folders are
// followed, hidden entries counted). 0 when nothing can be read.
std::uint64_t fileSize(const QString &path);

// "1023 B", "1.00 KB", "1.50 MB", "5.00 GB" (binary units; nothing above GB).
QString formatFileSize(double size);

// The locked flag (immutable attribute). Failures to set or clear it are logged
// as "Unable to unlock file ..."; the caller goes on.
bool isFileLocked(const QString &path);
void lockFile(const QString &path);
void unlockFile(const QString &path);
// Every entry below FOLDER, not the folder itself. Links are not followed.
void lockFolder(const QString &folder);
void unlockFolder(const QString &folder);

// Sets the permission bits; a failure is logged.
void setPosixPermissions(unsigned long permissions, const QString &path);

// Kept for callers; there is nothing to do.
void disableFileSystemCachingForFile(const QString &path);

// Extended attribute KEY of PATH as UTF-8 text; none when missing, empty,
// longer than 255 bytes or not text.
std::optional<QString> metadataValueForKey(const QString &key, const QString &path);
bool setMetadataValue(const QString &value, const QString &key, const QString &path);

// Updates the item's time stamps with the system's touch tool (with administrator
// rights when the user may not write the item); with SETCREATIONDATE also the
// creation date where the system allows it. False without a path or when the
// privileged run fails.
bool touchFile(const QString &path, bool setCreationDate = false);

bool setModificationDate(const QDateTime &date, const QString &path);

}  // namespace HXFileManager
