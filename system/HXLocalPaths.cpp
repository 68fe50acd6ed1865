#include "system/HXLocalPaths.h"

#include "platform/Folder.h"
#include "platform/Platform.h"
#include "system/HXPath.h"

#include <QFile>
#include <QUuid>

#include <array>
#include <cstdlib>
#include <ctime>
#include <sys/stat.h>

namespace {

QString processHome()
{
    return platform::homeDirectoryOfUser(platform::processUserName()).value_or(QString());
}

// The homes a user-domain folder is computed from, looked up once: the process's
// own and, as root, the console user's (whose home the folders are moved into).
struct Homes {
    QString process = processHome();
    QString user = platform::isRoot() ? HXLocalPaths::userDirectory() : process;
};

QString userDomainPath(HXDirectory kind, const Homes &homes)
{
    const QString entry =
        HXLocalPaths::searchPathEntry(kind, homes.process.isEmpty() ? QStringLiteral("/") : homes.process);
    if (entry.isEmpty() || !platform::isRoot())
        return entry;
    return HXLocalPaths::rebaseIntoConsoleHome(entry, homes.process, homes.user);
}

QString inFolder(const QString &folder, const char *name)
{
    return folder.isEmpty() ? QString() : HXPath::appendingComponent(folder, QString::fromUtf8(name));
}

}  // namespace

QString HXLocalPaths::searchPathEntry(HXDirectory kind, const QString &home)
{
    const bool user = !home.isEmpty();
    auto in = [&](const char *relative) {
        return user ? HXPath::appendingComponent(home, QString::fromUtf8(relative))
                    : QStringLiteral("/") + QString::fromUtf8(relative);
    };
    switch (kind) {
    case HXDirectory::Applications:
        return in("Applications");
    case HXDirectory::AdminApplications:
        return in("Applications/Utilities");
    case HXDirectory::Documents:
        return user ? in("Documents") : QString();
    case HXDirectory::Library:
        return in("Library");
    case HXDirectory::Caches:
        return in("Library/Caches");
    case HXDirectory::ApplicationSupport:
        return in("Library/Application Support");
    case HXDirectory::Desktop:
        return user ? in("Desktop") : QString();
    case HXDirectory::Movies:
        return user ? in("Movies") : QString();
    case HXDirectory::Documentation:
        return in("Library/Documentation");
    }
    return QString();
}

QString HXLocalPaths::rebaseIntoConsoleHome(const QString &entry, const QString &rootHome,
                                            const QString &consoleHome)
{
    QString rest = entry;
    if (!rootHome.isEmpty() && rest.startsWith(rootHome))
        rest = rest.mid(rootHome.size());
    // Sixteen, not seventeen: one character of the prefix deliberately stays.
    if (rest.startsWith(QLatin1String("/private/var/root")))
        rest = rest.mid(16);
    if (consoleHome.isEmpty())
        return QString();
    return HXPath::appendingComponent(consoleHome, rest);
}

QString HXLocalPaths::pathForDirectory(HXDirectory kind, bool userDomain)
{
    if (!userDomain)
        return searchPathEntry(kind, QString());
    return userDomainPath(kind, Homes());
}

QString HXLocalPaths::applicationDirectory(bool user)
{
    return pathForDirectory(HXDirectory::Applications, user);
}

QString HXLocalPaths::adminApplicationDirectory(bool user)
{
    return pathForDirectory(HXDirectory::AdminApplications, user);
}

QString HXLocalPaths::documentDirectory(bool user)
{
    return pathForDirectory(HXDirectory::Documents, user);
}

QString HXLocalPaths::libraryDirectory(bool user)
{
    return pathForDirectory(HXDirectory::Library, user);
}

QString HXLocalPaths::prefsDirectory(bool user)
{
    return inFolder(libraryDirectory(user), "Preferences");
}

QString HXLocalPaths::cacheDirectory(bool user)
{
    return pathForDirectory(HXDirectory::Caches, user);
}

QString HXLocalPaths::appSupportDirectory(bool user)
{
    return pathForDirectory(HXDirectory::ApplicationSupport, user);
}

std::optional<QString> HXLocalPaths::darwinCacheDirectory()
{
    return platform::userCacheDirectory();
}

QString HXLocalPaths::movieDirectory()
{
    return pathForDirectory(HXDirectory::Movies, true);
}

QString HXLocalPaths::desktopDirectory()
{
    return pathForDirectory(HXDirectory::Desktop, true);
}

QString HXLocalPaths::userDirectory()
{
    if (!platform::isRoot())
        return processHome();
    const std::optional<QString> console = currentConsoleUser();
    return platform::homeDirectoryOfUser(console.value_or(QString())).value_or(QString());
}

QString HXLocalPaths::ownHomeDirectory()
{
    return processHome();
}

QString HXLocalPaths::username()
{
    if (!platform::isRoot())
        return platform::processUserName();
    return currentConsoleUser().value_or(QString());
}

QString HXLocalPaths::systemLibraryDirectory()
{
    return QStringLiteral("/System/Library");
}

QString HXLocalPaths::trashDirectory()
{
    const QString home = userDirectory();
    return home.isEmpty() ? QString() : HXPath::appendingComponent(home, platform::trashFolderInHome());
}

QString HXLocalPaths::logDirectory(bool user)
{
    const QString library = libraryDirectory(user);
    return library.isEmpty() ? QString() : HXPath::appendingComponent(library, QStringLiteral("Logs"));
}

QString HXLocalPaths::localDocumentationDirectory()
{
    return pathForDirectory(HXDirectory::Documentation, false);
}

QString HXLocalPaths::tempDirectory()
{
    return platform::temporaryDirectory();
}

QString HXLocalPaths::tempFile()
{
    return HXPath::appendingComponent(tempDirectory(), uuid() + randomString(8));
}

QString HXLocalPaths::uuid()
{
    return QUuid::createUuid().toString(QUuid::WithoutBraces).toUpper();
}

QString HXLocalPaths::randomString(int length)
{
    static constexpr char kAlphabet[] = "abcdefghijklmnopqrstuvwxyz0123456789";
    // Seeded from clock ticks and wall time: two calls in the same tick and second
    // give the same string, which callers accept.
    std::srand(static_cast<unsigned>(std::clock() * std::time(nullptr)));
    QString result;
    result.reserve(length > 0 ? length : 0);
    for (int i = 0; i < length; ++i)
        result.append(QLatin1Char(kAlphabet[std::rand() % 36]));
    return result;
}

namespace {

// The folders the exact-match rule protects, in the order it compares them, with
// the homes looked up once for the whole check.
std::array<QString, 20> protectedFolders()
{
    const Homes homes;
    const QString userLibrary = userDomainPath(HXDirectory::Library, homes);
    const QString localLibrary = HXLocalPaths::searchPathEntry(HXDirectory::Library, QString());
    return {
        userDomainPath(HXDirectory::Applications, homes),
        HXLocalPaths::searchPathEntry(HXDirectory::Applications, QString()),
        userDomainPath(HXDirectory::AdminApplications, homes),
        HXLocalPaths::searchPathEntry(HXDirectory::AdminApplications, QString()),
        userDomainPath(HXDirectory::Documents, homes),
        HXLocalPaths::searchPathEntry(HXDirectory::Documents, QString()),
        userLibrary,
        localLibrary,
        inFolder(userLibrary, "Preferences"),
        inFolder(localLibrary, "Preferences"),
        userDomainPath(HXDirectory::Caches, homes),
        HXLocalPaths::searchPathEntry(HXDirectory::Caches, QString()),
        userDomainPath(HXDirectory::ApplicationSupport, homes),
        HXLocalPaths::searchPathEntry(HXDirectory::ApplicationSupport, QString()),
        userDomainPath(HXDirectory::Desktop, homes),
        homes.user,
        HXLocalPaths::systemLibraryDirectory(),
        HXLocalPaths::localDocumentationDirectory(),
        QStringLiteral("/Users/Shared"),
        QStringLiteral("/Volumes"),
    };
}

}  // namespace

bool HXLocalPaths::isPathSystemDirectory(const QString &path, bool exactMatch)
{
    if (path == QLatin1String("/"))
        return true;
    if (path.size() < 3)
        return false;
    QString compared = path;
    // Two characters, not one: "/Library/" is compared as "/Librar". Kept as is.
    if (compared.endsWith(QLatin1Char('/')))
        compared.chop(2);
    for (const QString &folder : protectedFolders()) {
        if (compared == folder)
            return true;
    }
    if (exactMatch)
        return false;
    for (const char *prefix : {"/usr", "/var", "/private/var", "/System"}) {
        if (compared.startsWith(QLatin1String(prefix)))
            return true;
    }
    return false;
}

bool HXLocalPaths::isProtectedFolder(const QString &path)
{
    if (isPathSystemDirectory(path, true))
        return true;
    if (path.isEmpty())
        return false;
    const QString cleaned = platform::absoluteItemPath(path);
    if (cleaned != path && isPathSystemDirectory(cleaned, true))
        return true;
    // Another name for a protected folder: a link root made, "..", a bind mount.
    const std::optional<platform::Item> item = platform::Item::open(cleaned);
    const std::optional<struct stat> opened = item ? item->info() : std::nullopt;
    std::optional<platform::Folder> folder =
        (opened && S_ISDIR(opened->st_mode)) ? item->folder.realFolder(item->name) : std::nullopt;
    const std::optional<struct stat> identity = folder ? folder->info() : std::nullopt;
    if (!identity)
        return false;
    auto same = [&identity](const QString &protectedPath) {
        struct stat info {};
        return !protectedPath.isEmpty() && ::stat(QFile::encodeName(protectedPath).constData(), &info) == 0 &&
               info.st_dev == identity->st_dev && info.st_ino == identity->st_ino;
    };
    if (same(QStringLiteral("/")))
        return true;
    for (const QString &protectedPath : protectedFolders())
        if (same(protectedPath))
            return true;
    return false;
}

bool HXLocalPaths::isPathOnTimeMachineVolume(const QString &path)
{
    if (!path.startsWith(QLatin1String("/Volumes/")))
        return false;
    return HXPath::components(path).contains(QStringLiteral("Backups.backupdb"));
}

std::optional<QString> HXLocalPaths::currentConsoleUser()
{
    return platform::consoleUser();
}
