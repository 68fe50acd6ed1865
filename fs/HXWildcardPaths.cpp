#include "fs/HXWildcardPaths.h"

#include "fs/HXFileOperations.h"
#include "fs/HXWildcardMatch.h"
#include "system/HXPath.h"
#include "system/HXUsersTree.h"

#include <QFile>

#include <dirent.h>

namespace HXFileManager {

namespace {

// Entry names of FOLDER in the order the file system returns them, hidden names
// included, "." and ".." left out. A folder that cannot be listed has none.
QStringList shallowListing(const QString &folder)
{
    QStringList names;
    DIR *dir = ::opendir(QFile::encodeName(folder).constData());
    if (dir == nullptr)
        return names;
    while (const dirent *entry = ::readdir(dir)) {
        const QString name = QFile::decodeName(entry->d_name);
        if (name != QLatin1String(".") && name != QLatin1String(".."))
            names.append(name);
    }
    ::closedir(dir);
    return names;
}

// Path components the way the platform splits them: an absolute path starts with
// "/", and a trailing slash shows as a last "/" component.
QStringList patternComponents(const QString &pattern)
{
    QStringList parts = HXPath::components(pattern);
    if (pattern.size() > 1 && pattern.endsWith(QLatin1Char('/')))
        parts.append(QStringLiteral("/"));
    return parts;
}

}  // namespace

QStringList filesMatchingWildcardPath(const QString &pattern, const QString &basePath, bool searchSubdirs)
{
    Q_UNUSED(searchSubdirs);
    const bool hasBase = !basePath.isEmpty();
    const QString joined = hasBase ? HXPath::appendingComponent(basePath, pattern) : pattern;
    if (!pattern.contains(QLatin1Char('*')))
        return {joined};

    const QString root = hasBase ? basePath : QStringLiteral("/");
    // As root in the console user's home, looked at with her rights.
    const HXActingForUser acting(root);
    QStringList candidates{root};
    for (const QString &component : patternComponents(pattern)) {
        QStringList next;
        if (component == QLatin1String("/")) {
            // An absolute pattern restarts at the base path, not at the root.
            next.append(root);
        } else if (component.contains(QLatin1Char('*'))) {
            for (const QString &folder : std::as_const(candidates)) {
                for (const QString &name : shallowListing(folder)) {
                    if (!HXWildcardMatches(name, component))
                        continue;
                    const QString path = HXPath::appendingComponent(folder, name);
                    if (fileExistsAtPath(path))
                        next.append(path);
                }
            }
        } else {
            for (const QString &folder : std::as_const(candidates)) {
                const QString path = HXPath::appendingComponent(folder, component);
                if (fileExistsAtPath(path))
                    next.append(path);
            }
        }
        candidates = next;
        if (candidates.isEmpty())
            break;
    }
    return candidates;
}

QStringList filesMatchingWildcardPath(const QString &pattern, const QString &basePath)
{
    return filesMatchingWildcardPath(pattern, basePath, false);
}

QStringList filesMatchingWildcardPath(const QString &pattern)
{
    return filesMatchingWildcardPath(pattern, QString());
}

std::optional<QString> decodeWildcardPath(const QString &pattern, const QString &basePath)
{
    const QStringList matches = filesMatchingWildcardPath(pattern, basePath, false);
    if (!matches.isEmpty())
        return matches.first();
    if (basePath.isEmpty())
        return std::nullopt;
    return HXPath::appendingComponent(basePath, pattern);
}

}  // namespace HXFileManager
