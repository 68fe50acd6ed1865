#include "app/audit/AdobeProcesses.h"

#include <QStringList>

#include <algorithm>
#include <iterator>

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
