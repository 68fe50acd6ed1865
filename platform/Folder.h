#pragma once

// Folders opened by descriptor, and everything done to the entries inside them.
//
// A path is resolved once and every later step names an entry of a folder
// already opened, never a path again. An entry's last component is never
// followed: removing, moving or copying a link acts on the link itself.
//
// How the folders on the way are found depends on whose rights the thread uses
// (platform/Identity.h). A process acting as itself, and root acting as a user,
// resolve a path as the system does: the kernel checks every step, so links
// (".." included) lead where they would lead that user. With root's own rights
// the path is walked from "/", one component at a time, and a symbolic link is
// followed only when nobody but root can have made it (the link and the folder
// holding it are root's, and that folder is not writable by others unless
// sticky); ".." is refused unless a followed link's own target climbs. Root's
// refusals are ELOOP.
//
// Results are 0 or the errno of the first failure.

#include "platform/Accounts.h"

#include <QString>
#include <QStringList>

#include <cstdint>
#include <functional>
#include <optional>
#include <utility>
#include <sys/stat.h>
#include <sys/types.h>

namespace platform {

// Called as a copy goes: BYTES more copied, or OBJECTS more items complete.
using CopyProgress = std::function<bool(std::uint64_t bytes, int objects)>;

class Folder {
public:
    Folder() = default;
    Folder(Folder &&other) noexcept;
    Folder &operator=(Folder &&other) noexcept;
    Folder(const Folder &) = delete;
    Folder &operator=(const Folder &) = delete;
    ~Folder();

    // Opens PATH (absolute, or relative to the working folder) as a folder.
    static std::optional<Folder> open(const QString &path, int *error = nullptr);
    // The same, making each missing folder with MODE; as root the folders made
    // are handed to OWNER (none: kept root's).
    static std::optional<Folder> openMakingPath(const QString &path, mode_t mode, std::optional<uid_t> owner,
                                                int *error = nullptr);
    // PATH opened as ACCOUNT would open it, making missing folders as ACCOUNT with
    // MAKEMODE when given; refused (EPERM) unless the folder reached is ACCOUNT's,
    // so that root may go on working inside it for her.
    static std::optional<Folder> openAs(const Account &account, const QString &path,
                                        std::optional<mode_t> makeMode, int *error = nullptr);

    bool isValid() const { return m_fd >= 0; }
    int descriptor() const { return m_fd; }
    // The folder itself.
    std::optional<struct stat> info() const;
    // An entry, not followed.
    std::optional<struct stat> infoOf(const QString &name) const;
    // The same for a name as the file system spells it (from a listing).
    std::optional<struct stat> infoOf(const char *name) const;
    bool contains(const QString &name) const { return infoOf(name).has_value(); }
    // Entry names in the file system's order, hidden ones included.
    QStringList entries(int *error = nullptr) const;

    // Entry NAME as a folder: a real one, or a link the rule above lets us follow.
    std::optional<Folder> folder(const QString &name, int *error = nullptr) const;
    // Entry NAME as a folder only if it is a real one; a link is never followed.
    std::optional<Folder> realFolder(const QString &name, int *error = nullptr) const;
    // Makes folder NAME (EEXIST when anything is there) and opens it.
    std::optional<Folder> makeFolder(const QString &name, mode_t mode, int *error = nullptr) const;
    // The folder above this one.
    std::optional<Folder> parent(int *error = nullptr) const;

    // A new file NAME (never an existing one, never through a link): a writable
    // descriptor the caller closes, or -1 with ERROR.
    int createFile(const QString &name, mode_t mode, int *error = nullptr) const;
    // Writes CONTENTS as the file NAME, which appears whole or not at all, even if
    // the process is killed while writing; given to OWNER when set. Without
    // REPLACE, NAME must be new (EEXIST when taken); with it, NAME's file or link
    // is replaced. 0 or errno.
    int writeWholeFile(const QString &name, const QByteArray &contents, mode_t mode,
                       std::optional<std::pair<uid_t, gid_t>> owner, bool replace) const;
    // An existing regular file NAME for reading, not through a link; -1 with ERROR.
    int openFileForReading(const QString &name, int *error = nullptr) const;
    std::optional<QByteArray> linkTarget(const QString &name) const;
    int makeLink(const QByteArray &target, const QString &name) const;

    // Renames NAME to TONAME inside DESTINATION; REPLACE lets it take the place
    // of an existing file, link or empty folder (never following a link there).
    int rename(const QString &name, const Folder &destination, const QString &toName, bool replace) const;
    // Removes the file, link or empty folder NAME.
    int removeEntry(const QString &name) const;
    // Removes NAME and everything below it.
    int removeTree(const QString &name) const;
    // Copies NAME to TONAME in DESTINATION, which must not exist there yet:
    // folders with their contents, links as links, files with their permission
    // bits and, as root, their owners. A folder being made is root's alone until
    // it is complete. PROGRESS hears of every piece written and every item done;
    // false from it stops the copy with ECANCELED.
    int copyTree(const QString &name, const Folder &destination, const QString &toName,
                 const CopyProgress &progress = {}) const;

    // Owner and permission bits of NAME (the link itself for a link). As root a
    // file with more than one hard link is refused (EMLINK): its other names may
    // lie where the user must not reach.
    int setOwner(const QString &name, uid_t owner, gid_t group) const;
    int setMode(const QString &name, mode_t mode) const;
    // The file system's immutable (locked) flag of NAME; a link carries none.
    std::optional<bool> isImmutable(const QString &name) const;
    int setImmutable(const QString &name, bool immutable) const;
    // Sets NAME's access and modification times to now (the link itself for a link).
    int touch(const QString &name) const;

    // Takes over FD, a descriptor of a folder (O_PATH is enough).
    explicit Folder(int fd) : m_fd(fd) {}
    // Another descriptor of the same folder.
    std::optional<Folder> duplicate() const;

private:
    int m_fd = -1;
};

// One item named by a path: its opened folder and its last component, which is
// never followed. None for "/" and for a path ending in "..".
struct Item {
    Folder folder;
    QString name;

    static std::optional<Item> open(const QString &path, int *error = nullptr);
    std::optional<struct stat> info() const { return folder.infoOf(name); }
    bool exists() const { return folder.contains(name); }
};

// PATH made absolute against the working folder, "." and empty components and
// a trailing "/" removed (".." kept: the walk refuses it).
QString absoluteItemPath(const QString &path);

}  // namespace platform
