#include "fs/HXVolumes.h"

#include "fs/HXFileOperations.h"
#include "platform/Platform.h"
#include "platform/Volumes.h"
#include "system/HXFormat.h"
#include "system/HXPath.h"

namespace HXFileManager {

namespace {

// The first three components joined with "/": "/", "Volumes", "Name" give
// "//Volumes/Name", which the file system reads as "/Volumes/Name".
QString volumeFolder(const QStringList &components)
{
    return components.mid(0, 3).join(QLatin1Char('/'));
}

}  // namespace

std::optional<QVariantMap> infoForDiskAtMountpoint(const QString &mountPoint)
{
    std::optional<QVariantMap> info = platform::diskInformation(mountPoint);
    if (info && info->isEmpty())
        return std::nullopt;
    return info;
}

bool isVolumeMountedForPath(const QString &path)
{
    if (!path.startsWith(QLatin1String("/Volumes")))
        return true;
    const QStringList components = HXPath::components(path);
    if (components.size() < 3)
        return true;
    return fileExistsAtPath(volumeFolder(components));
}

bool isDriveMountedForPath(const QString &path)
{
    if (!path.startsWith(QLatin1String("/Volumes/")))
        return true;
    const QStringList components = HXPath::components(path);
    if (components.size() < 3)
        return true;
    const QString mountPoint = volumeFolder(components);
    platform::systemLog(HXFormat(u"mountpoint: %@", mountPoint));
    return fileExistsAtPath(mountPoint);
}

std::optional<QString> volumeMountPointForPath(const QString &path)
{
    for (const QString &volume : platform::mountedLocalVolumePaths()) {
        if (volume == QLatin1String("/"))
            continue;
        if (path == volume || path.startsWith(volume + QLatin1Char('/')))
            return volume;
    }
    if (path.startsWith(QLatin1String("/Volumes")))
        return std::nullopt;
    return QStringLiteral("/");
}

}  // namespace HXFileManager
