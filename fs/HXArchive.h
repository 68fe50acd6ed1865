#pragma once

// Zip archives made and unpacked in process (libarchive), laid out the way the
// system's archiver lays them out.

#include <QString>

namespace HXArchive {

// Writes SOURCE (a file or a folder tree) as the zip archive DESTINATION. With
// KEEPPARENT a folder's entries start with the folder's own name ("Folder/a.txt"),
// without it they start inside the folder ("a.txt"); a file is always stored under
// its own name. Symbolic links are stored as links. A failed archive is removed.
bool compress(const QString &source, const QString &destination, bool keepParent);

// Unpacks the zip archive ARCHIVE into the folder DESTINATION (created when
// missing). Entries that would land outside it (absolute paths, "..", through
// symbolic links) are refused.
bool decompress(const QString &archive, const QString &destination);

}  // namespace HXArchive
