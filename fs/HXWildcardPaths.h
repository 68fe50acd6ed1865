#pragma once

// Expansion of path patterns whose components may hold "*" into the existing paths
// they name. Results keep the file system's listing order; nothing is sorted.

#include <QString>
#include <QStringList>

#include <optional>

namespace HXFileManager {

// Paths named by PATTERN, joined to BASEPATH when one is given (an empty base path
// means none; a relative pattern is then resolved from "/"). A pattern without "*"
// gives the joined path alone, whether or not it exists. SEARCHSUBDIRS is accepted
// and ignored: matching never goes deeper than the pattern spells out.
QStringList filesMatchingWildcardPath(const QString &pattern, const QString &basePath, bool searchSubdirs);
QStringList filesMatchingWildcardPath(const QString &pattern, const QString &basePath);
QStringList filesMatchingWildcardPath(const QString &pattern);

// The first path PATTERN names; without a match, the pattern joined to BASEPATH,
// which is none when there is no base path.
std::optional<QString> decodeWildcardPath(const QString &pattern, const QString &basePath = QString());

}  // namespace HXFileManager
