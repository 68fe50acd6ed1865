#pragma once

// The user's Trash. On Linux the freedesktop.org trash: an item moved to
// <trash>/files/<name> with a record <trash>/info/<name>.trashinfo holding its
// original path and deletion date, so that the desktop's file manager (and
// trash-cli) can list and restore it. Every step goes through opened folders
// (platform/Folder.h), so a user swapping folders for links while root trashes
// cannot send an item, or a record, anywhere else.

#include "platform/Folder.h"

#include <QByteArray>
#include <QDateTime>
#include <QString>

namespace platform::trash {

struct Outcome {
    bool trashed = false;
    // Where the item now lies, and its record; empty when it was not trashed.
    QString trashedPath;
    QString infoPath;
    // errno of the failing step, 0 on success.
    int error = 0;
};

// Moves PATH (the item itself, never what a symbolic link points to) into the
// trash whose files folder is TRASHFILESFOLDER (the home trash, ".../Trash/files"),
// under a free name. An item on another file system goes to that volume's own
// trash ($topdir/.Trash/$uid or $topdir/.Trash-$uid) of the user owning the home
// trash. As root, folders and records made in that user's trash are handed to him.
Outcome moveToTrash(const QString &path, const QString &trashFilesFolder);
// The same for the entry NAME of an opened FOLDER; ORIGINALPATH goes into its record.
Outcome moveToTrash(const Folder &folder, const QString &name, const QString &originalPath,
                    const QString &trashFilesFolder);

// Moves PATH into the home trash under exactly NAME, with its record; EEXIST when
// NAME is taken there. Across file systems the item is copied, then removed.
Outcome moveToTrashAs(const QString &path, const QString &trashFilesFolder, const QString &name);

// The ATTEMPT-th candidate name for NAME in the trash: the name itself first, then
// "name.2.ext", "name.3.ext"... (number before the first dot, as GLib numbers them).
QString candidateName(const QString &name, int attempt);

// The .trashinfo record for ORIGINALPATH (absolute) deleted at DELETIONDATE (local time).
QByteArray trashInfo(const QString &originalPath, const QDateTime &deletionDate);

// PATH percent-encoded the way .trashinfo records store it ("/" kept).
QByteArray encodedPath(const QString &path);

}  // namespace platform::trash
