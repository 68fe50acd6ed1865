#pragma once

// The locked flag of files and folders (the immutable flag of the file system).
// A symbolic link is looked at itself, never its target, and the path is opened
// as platform/Folder.h opens paths.

#include <QString>

#include <optional>

namespace platform {

// Whether the item carries the flag; none when the item cannot be looked at.
std::optional<bool> isImmutable(const QString &path);

// Sets or clears the flag. Returns 0, or the system's error number. Clearing the
// flag of an item that cannot carry it (a link, a file system without flags)
// succeeds, since there is nothing to clear.
int setImmutable(const QString &path, bool immutable);

}  // namespace platform
