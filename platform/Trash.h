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

#include <memory>
#include <optional>

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

// Many items of one clean-up in a single folder of the home trash with a single
// record: the trash lists one item where it would list thousands, and moving an
// item costs a rename alone. The folder is named after the folder the items came
// from, its record gives that folder's path, and below it every item keeps its
// path relative to that folder, so each can still be put back on its own.
class Collection {
public:
    // Makes the collection for items of ORIGINALFOLDER (absolute) in the trash
    // whose files folder is TRASHFILESFOLDER, under a free name; none with ERROR.
    static std::optional<Collection> make(const QString &originalFolder, const QString &trashFilesFolder,
                                          int *error = nullptr);
    // Moves the entry NAME of FOLDER in as RELATIVEPATH (its path below the
    // original folder), making the sub-folders on the way. EXDEV for an item on
    // another file system than the trash: the caller trashes it on its own.
    Outcome add(const Folder &folder, const QString &name, const QString &relativePath);
    // The collection's place in the trash and its record.
    QString path() const;
    QString infoPath() const;
    // Nothing was added to it yet.
    bool isEmpty() const;
    // Takes the collection, and its record, out of the trash again when nothing
    // was added to it.
    void discardIfEmpty();

    struct State;

private:
    explicit Collection(std::shared_ptr<State> state) : m_state(std::move(state)) {}
    std::shared_ptr<State> m_state;
};

// Removes the item NAME of the trash's files folder TRASHFILES (and its record)
// when it is a folder holding nothing but empty folders: a collection whose
// items all went back. True when it was removed.
bool removeIfOnlyEmptyFolders(const Folder &trashFiles, const QString &name);

// The ATTEMPT-th candidate name for NAME in the trash: the name itself first, then
// "name.2.ext", "name.3.ext"... (number before the first dot, as GLib numbers them).
QString candidateName(const QString &name, int attempt);

// The .trashinfo record for ORIGINALPATH (absolute) deleted at DELETIONDATE (local time).
QByteArray trashInfo(const QString &originalPath, const QDateTime &deletionDate);

// PATH percent-encoded the way .trashinfo records store it ("/" kept).
QByteArray encodedPath(const QString &path);

}  // namespace platform::trash
