#include "fs/HXCopyPreamble.h"

#include "fs/HXFileOperations.h"
#include "system/HXPath.h"

#include <chrono>

namespace HXFileManager {

bool copySourceExists(const QString &source)
{
    if (fileExistsAtPath(source))
        return true;
    copyConsole(u"Error: File %@ doesn't exist. Aborting copy process...", source);
    return false;
}

bool copyDestinationFolderMade(const QString &source, const QString &destination)
{
    const QString parent = HXPath::deletingLastComponent(destination);
    if (fileExistsAtPath(parent) || createDirectory(parent, std::chrono::seconds(10)))
        return true;
    copyConsole(u"Unable to copy file %@ - destination directory %@ doesn't exist. Aborting copy process...",
                source, parent);
    return false;
}

QVariantMap copySettings(QVariantMap settings, const QVariant &delegate, const QVariant &object,
                         const QVariant &object2)
{
    settings.insert(QStringLiteral("operationtype"), QStringLiteral("copy"));
    if (delegate.isValid())
        settings.insert(QStringLiteral("delegate"), delegate);
    if (object.isValid())
        settings.insert(QStringLiteral("object"), object);
    if (object2.isValid())
        settings.insert(QStringLiteral("object2"), object2);
    return settings;
}

}  // namespace HXFileManager
