#pragma once

// Whole items on disk: listing, copying and removing a file or folder tree without
// ever following a symbolic link inside it. Results are 0 or the errno of the
// first failure.

#include <QString>
#include <QStringList>

namespace HXFileTree {

// The names in FOLDER in the file system's order, hidden ones included; empty
// when it cannot be listed.
QStringList entries(const QString &folder);

// Copies FROM to TO, which must not exist: folders with their contents, links as
// links, files with their permission bits.
int copy(const QString &from, const QString &to);

// Removes PATH and everything below it.
int remove(const QString &path);

}  // namespace HXFileTree
