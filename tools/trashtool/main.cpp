// trashtool: run as root by a repair to move an item, or every item inside a
// folder, into the Trash of the user at the console (the freedesktop.org home
// trash, with the records a file manager restores from). Protected folders are
// refused under any spelling; the item itself is moved, never what a link points
// to. In the console user's home it works with her rights first, so her links
// lead where they lead her; what she cannot move herself it moves with root's,
// every path then opened from "/" one folder at a time without following her
// links. Exit status 0 when everything was trashed, 1 otherwise, 2 for bad
// arguments.

#include "platform/Folder.h"
#include "platform/Platform.h"
#include "platform/Trash.h"
#include "system/HXFormat.h"
#include "system/HXLocalPaths.h"
#include "system/HXPath.h"
#include "system/HXUsersTree.h"

#include <QFile>

#include <cstdio>
#include <cstring>
#include <functional>

namespace {

// Set while an attempt with the user's rights runs: its failures are not final.
bool g_quiet = false;

int complain(const QString &message)
{
    if (!g_quiet)
        std::fprintf(stderr, "trashtool: %s\n", qPrintable(message));
    return 1;
}

// WORK on PATH with the console user's rights when PATH lies in her home, then,
// if that did not do it all, with root's.
int asUserThenRoot(const QString &path, const std::function<int()> &work)
{
    {
        const HXActingForUser acting(path);
        if (acting.isActing()) {
            g_quiet = true;
            const int status = work();
            g_quiet = false;
            if (status == 0)
                return 0;
        }
    }
    return work();
}

QString reason(int error)
{
    return QString::fromLocal8Bit(std::strerror(error));
}

// The entry NAME of FOLDER, at PATH, into the trash whose files folder is TRASH.
bool trashEntry(const platform::Folder &folder, const QString &name, const QString &path,
                const QString &trash)
{
    const platform::trash::Outcome outcome = platform::trash::moveToTrash(folder, name, path, trash);
    if (!outcome.trashed)
        complain(QStringLiteral("could not trash %1: %2").arg(path, reason(outcome.error)));
    return outcome.trashed;
}

int trashItem(const QString &argument, const QString &trash)
{
    const QString path = platform::absoluteItemPath(argument);
    int error = 0;
    const std::optional<platform::Item> item = platform::Item::open(path, &error);
    if (!item)
        return complain(QStringLiteral("could not trash %1: %2").arg(path, reason(error)));
    if (!item->exists())
        return complain(QStringLiteral("could not trash %1: %2").arg(path, reason(ENOENT)));
    if (HXLocalPaths::isProtectedFolder(argument))
        return complain(HXFormat(u"Unable to trash path %@ because it is a system directory.", argument));
    return trashEntry(item->folder, item->name, path, trash) ? 0 : 1;
}

int trashContents(const QString &argument, const QString &trash)
{
    const QString path = platform::absoluteItemPath(argument);
    // The rule looks at the cleaned spelling and the folder opened as well.
    if (HXLocalPaths::isProtectedFolder(argument))
        return complain(HXFormat(
            u"Unable to trash folder contents of path %@ because it is a system directory.", argument));
    int error = 0;
    const std::optional<platform::Folder> folder = platform::Folder::open(path, &error);
    const QStringList names = folder ? folder->entries(&error) : QStringList();
    if (!folder || error != 0)
        return complain(QStringLiteral("could not list %1: %2").arg(path, reason(error)));
    bool all = true;
    for (const QString &name : names) {
        const QString entry = HXPath::appendingComponent(path, name);
        if (HXLocalPaths::isProtectedFolder(entry)) {
            complain(HXFormat(u"Unable to trash path %@ because it is a system directory.", entry));
            all = false;
        } else {
            all = trashEntry(*folder, name, entry, trash) && all;
        }
    }
    return all ? 0 : 1;
}

}  // namespace

int main(int argc, char **argv)
{
    const bool contents = argc == 3 && std::strcmp(argv[1], "-dircontents") == 0;
    if (!(argc == 2 && argv[1][0] != '\0' && std::strcmp(argv[1], "-dircontents") != 0) && !contents) {
        std::fprintf(stderr, "usage: %s PATH\n       %s -dircontents FOLDER\n", argv[0], argv[0]);
        return 2;
    }
    const QString home = HXLocalPaths::userDirectory();
    if (home.isEmpty())
        return complain(QStringLiteral("nobody is logged in at the console, so there is no Trash to use"));
    const QString trash = HXPath::appendingComponent(home, platform::trashFolderInHome());
    const QString argument = QFile::decodeName(argv[contents ? 2 : 1]);
    return asUserThenRoot(platform::absoluteItemPath(argument), [&] {
        return contents ? trashContents(argument, trash) : trashItem(argument, trash);
    });
}
