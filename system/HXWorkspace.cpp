#include "system/HXWorkspace.h"

#include "platform/Accounts.h"
#include "platform/Platform.h"
#include "platform/Processes.h"
#include "system/HXBundle.h"
#include "system/HXLocalPaths.h"
#include "system/HXPath.h"

#include <QDir>
#include <QFileInfo>
#include <QUrl>
#include <QHash>

#include <cstring>

namespace {

// The person at the desktop; none as root while nobody is logged in.
std::optional<platform::Account> desktopAccount()
{
    if (!platform::isRoot())
        return platform::accountNamed(platform::processUserName());
    const std::optional<QString> console = HXLocalPaths::currentConsoleUser();
    if (!console)
        return std::nullopt;
    return platform::accountNamed(*console);
}

bool isApplicationBundle(const QString &path)
{
    return path.endsWith(QStringLiteral(".app")) && QFileInfo(path).isDir();
}

// A bundle's name as the desktop shows it, and the names it answers to.
bool answersToName(const HXBundle &bundle, const QString &name)
{
    return HXPath::deletingExtension(HXPath::lastComponent(bundle.bundlePath())) == name ||
           bundle.objectForInfoDictionaryKey(QStringLiteral("CFBundleName")).toString() == name;
}

// The desktop's opener, started for the desktop user (never as root).
bool openWithDesktop(const QString &pathOrAddress)
{
    const std::optional<platform::Account> account = desktopAccount();
    if (!account || account->uid == 0)
        return false;
    const QString home = platform::homeDirectoryOfUser(account->name).value_or(QStringLiteral("/"));
    return platform::startDetached(QStringLiteral("/usr/bin/xdg-open"), {pathOrAddress}, *account, home) == 0;
}

}  // namespace

namespace HXWorkspace {

std::vector<RunningApplication> runningApplications()
{
    std::vector<RunningApplication> applications;
    const std::optional<platform::Account> account = desktopAccount();
    if (!account)
        return applications;
    QHash<QString, QString> identifiers;  // bundle path -> identifier, read once
    for (const platform::RunningProcess &process : platform::runningProcesses()) {
        if (process.owner != account->uid)
            continue;
        const QString bundlePath = HXBundle::bundlePathForExecutable(process.executablePath);
        if (!bundlePath.endsWith(QStringLiteral(".app")))
            continue;
        auto known = identifiers.constFind(bundlePath);
        if (known == identifiers.constEnd())
            known = identifiers.insert(bundlePath, HXBundle(bundlePath).bundleIdentifier());
        applications.push_back({process.pid, process.executablePath, bundlePath, *known});
    }
    return applications;
}

QStringList runningBundleIdentifiers()
{
    QStringList identifiers;
    for (const RunningApplication &application : runningApplications())
        if (!application.bundleIdentifier.isEmpty() && !identifiers.contains(application.bundleIdentifier))
            identifiers.append(application.bundleIdentifier);
    return identifiers;
}

std::optional<QString> absolutePathForAppBundleWithIdentifier(const QString &identifier)
{
    if (identifier.isEmpty())
        return std::nullopt;
    for (bool userDomain : {false, true}) {
        const QString folder = HXLocalPaths::applicationDirectory(userDomain);
        if (folder.isEmpty())
            continue;
        const QDir applications(folder);
        const QStringList entries = applications.entryList(QDir::Dirs | QDir::NoDotAndDotDot, QDir::Name);
        QStringList candidates;
        for (const QString &entry : entries) {
            const QString path = applications.filePath(entry);
            if (entry.endsWith(QStringLiteral(".app"))) {
                candidates.append(path);
                continue;
            }
            for (const QString &inner : QDir(path).entryList({QStringLiteral("*.app")},
                                                             QDir::Dirs | QDir::NoDotAndDotDot, QDir::Name))
                candidates.append(path + QLatin1Char('/') + inner);
        }
        for (const QString &candidate : candidates)
            if (HXBundle(candidate).bundleIdentifier() == identifier)
                return candidate;
    }
    return std::nullopt;
}

bool launchApplication(const QString &path, const QStringList &arguments)
{
    if (!isApplicationBundle(path))
        return false;
    const std::optional<platform::Account> account = desktopAccount();
    if (!account || account->uid == 0)
        return false;
    const QString home = platform::homeDirectoryOfUser(account->name).value_or(QStringLiteral("/"));
    const HXBundle bundle(path);
    QString executable = bundle.executablePath();
    if (executable.isEmpty())
        executable = path + QStringLiteral("/Contents/MacOS/") +
                     HXPath::deletingExtension(HXPath::lastComponent(path));
    return platform::startDetached(executable, arguments, *account, home) == 0;
}

bool openFile(const QString &path)
{
    return QFileInfo::exists(path) && openWithDesktop(path);
}

bool openURL(const QString &address)
{
    const QUrl url(address, QUrl::StrictMode);
    const bool isWebPage = url.isValid() && (url.scheme() == u"https" || url.scheme() == u"http");
    return isWebPage && openWithDesktop(url.toString(QUrl::FullyEncoded));
}

std::optional<QString> quitApplication(const QString &name)
{
    int refusal = 0;
    bool found = false;
    bool asked = false;
    for (const RunningApplication &application : runningApplications()) {
        if (!answersToName(HXBundle(application.bundlePath), name))
            continue;
        const std::optional<platform::PinnedProcess> process =
            platform::PinnedProcess::pin(application.pid, application.executablePath);
        if (!process)
            continue;
        found = true;
        // Every process of the application: a helper left behind keeps its files open.
        const int error = process->terminate();
        if (error == 0)
            asked = true;
        else
            refusal = error;
    }
    if (asked)
        return std::nullopt;
    if (!found)
        return QStringLiteral("Application isn't running.");
    return QStringLiteral("The quit request was refused: %1.")
        .arg(QString::fromLocal8Bit(std::strerror(refusal)));
}

}  // namespace HXWorkspace
