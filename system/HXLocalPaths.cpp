#include "system/HXLocalPaths.h"

#include "platform/Platform.h"
#include "system/HXPath.h"

#include <QUuid>

#include <array>
#include <cstdlib>
#include <ctime>

namespace {

QString processHome()
{
    return platform::homeDirectoryOfUser(platform::processUserName()).value_or(QString());
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
    const QString home = processHome();
    const QString entry = searchPathEntry(kind, home.isEmpty() ? QStringLiteral("/") : home);
    if (entry.isEmpty() || !platform::isRoot())
        return entry;
    return rebaseIntoConsoleHome(entry, home, userDirectory());
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
    const QString library = libraryDirectory(user);
    return library.isEmpty() ? QString() : HXPath::appendingComponent(library, QStringLiteral("Preferences"));
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

    const std::array<QString, 20> protectedFolders = {
        applicationDirectory(true),
        applicationDirectory(false),
        adminApplicationDirectory(true),
        adminApplicationDirectory(false),
        documentDirectory(true),
        documentDirectory(false),
        libraryDirectory(true),
        libraryDirectory(false),
        prefsDirectory(true),
        prefsDirectory(false),
        cacheDirectory(true),
        cacheDirectory(false),
        appSupportDirectory(true),
        appSupportDirectory(false),
        desktopDirectory(),
        userDirectory(),
        systemLibraryDirectory(),
        localDocumentationDirectory(),
        QStringLiteral("/Users/Shared"),
        QStringLiteral("/Volumes"),
    };
    for (const QString &folder : protectedFolders) {
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
