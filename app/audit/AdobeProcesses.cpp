#include "app/audit/AdobeProcesses.h"

#include "platform/Accounts.h"
#include "system/HXLocalPaths.h"

#include <QStringList>

#include <algorithm>
#include <iterator>
#include <unistd.h>

namespace {

// docs/ARCHITECTURE.md says why a repair must stop each of them. The
// applications a user works in (Premiere Pro itself, Media Encoder, the
// Creative Cloud window) are not here: ending them would lose unsaved work.
const char *const kNames[] = {
    // Premiere Pro's own helpers
    "PProHeadless",
    "Adobe QT32 Server",
    "TeamProjectsLocalHub",
    // Dynamic Link
    "dynamiclinkmanager",
    "dynamiclinkmediaserver",
    // the broker between Adobe processes
    "AdobeIPCBroker",
    // Creative Cloud's background services
    "Adobe Desktop Service",
    "CCXProcess",
    "CCLibrary",
    "Core Sync",
    "AdobeCRDaemon",
    "Adobe CEF Helper",
};

bool isAdobeFolderName(const QString &name)
{
    return name == QLatin1String("Adobe") || name.startsWith(QLatin1String("Adobe "));
}

// None when nobody is at the console.
std::optional<uid_t> consoleUserId()
{
    const std::optional<platform::Account> account = platform::accountNamed(HXLocalPaths::username());
    return account ? std::optional<uid_t>(account->uid) : std::nullopt;
}

}  // namespace

bool isAdobeBackgroundProcess(const QString &executablePath)
{
    if (!executablePath.startsWith(QLatin1Char('/')))
        return false;
    const QStringList components = executablePath.split(QLatin1Char('/'), Qt::SkipEmptyParts);
    // "." or ".." would make the folders named differ from the folders passed.
    for (const QString &component : components)
        if (component == QLatin1String(".") || component == QLatin1String(".."))
            return false;
    if (components.size() < 2 || executablePath.endsWith(QLatin1Char('/')))
        return false;
    const QString &file = components.last();
    const bool named = std::any_of(std::begin(kNames), std::end(kNames),
                                   [&file](const char *name) { return file == QLatin1String(name); });
    return named && std::any_of(components.cbegin(), components.cend() - 1, isAdobeFolderName);
}

bool mayEndAdobeProcess(std::optional<uid_t> soleUser, std::optional<uid_t> consoleUser, bool rootOnlyProgram)
{
    // Root at the console is no user of his own: root's processes are every
    // service's, and some may run programs from a user's tree.
    const bool consoleUsers = soleUser && consoleUser && *consoleUser != 0 && *soleUser == *consoleUser;
    return consoleUsers || rootOnlyProgram;
}

std::vector<platform::PinnedProcess> adobeProcessesToEnd()
{
    const std::optional<uid_t> consoleUser = consoleUserId();
    std::vector<platform::PinnedProcess> processes;
    for (const platform::RunningProcess &process : platform::runningProcesses()) {
        if (process.pid == ::getpid() || !isAdobeBackgroundProcess(process.executablePath))
            continue;
        // Judged on what was read once it was pinned, so it is that process.
        std::optional<platform::PinnedProcess> pinned =
            platform::PinnedProcess::pin(process.pid, process.executablePath);
        if (pinned && mayEndAdobeProcess(pinned->soleUser(), consoleUser, pinned->runsRootOnlyProgram()))
            processes.push_back(std::move(*pinned));
    }
    return processes;
}
