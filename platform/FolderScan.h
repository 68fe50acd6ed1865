#pragma once

// Reading a tree as fast as the file system allows, for audits that visit every
// item: entries listed in large batches, each entry's attributes read once
// without opening it, sub-folders opened relative to their parent and never
// through a link. Reads only; platform/OpenedItem.h changes what was read.

#include "platform/Folder.h"

#include <QByteArray>

#include <functional>
#include <optional>
#include <sys/types.h>

namespace platform {

struct ItemAttributes {
    mode_t mode = 0;  // type and permission bits
    uid_t owner = 0;
    gid_t group = 0;
    nlink_t links = 0;
    bool immutable = false;

    bool isFolder() const { return S_ISDIR(mode); }
    bool isLink() const { return S_ISLNK(mode); }
    mode_t permissions() const { return mode & 07777; }
};

// What a listing says of an entry before anyone looks at it.
enum class EntryKind { Unknown, Folder, Link, Other };

// Attributes of the entry NAME of FOLDER (the link itself for a link); none when
// they cannot be read.
std::optional<ItemAttributes> attributesOf(const Folder &folder, const char *name);
// Attributes of FOLDER itself.
std::optional<ItemAttributes> attributesOf(const Folder &folder);
// Attributes of the item held by the descriptor FD (O_PATH is enough).
std::optional<ItemAttributes> attributesOfDescriptor(int fd);

// Calls VISIT for each entry of FOLDER ("." and ".." left out) in the file
// system's order. False (with ERROR) when the folder could not be listed.
bool forEachEntry(const Folder &folder, const std::function<void(const char *name, EntryKind kind)> &visit,
                  int *error = nullptr);

// The sub-folder NAME of FOLDER, opened for listing; none for a link or anything
// else that is not a real folder, and when it cannot be opened.
std::optional<Folder> openSubfolder(const Folder &folder, const char *name);

}  // namespace platform
