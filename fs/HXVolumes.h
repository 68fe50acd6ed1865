#pragma once

// Volumes and mount points as the macOS layout names them ("/Volumes/<name>").

#include <QString>
#include <QVariantMap>

#include <optional>

namespace HXFileManager {

// What the system tells about the volume mounted at MOUNTPOINT (diskutil's key
// names); none when nothing is mounted there.
std::optional<QVariantMap> infoForDiskAtMountpoint(const QString &mountPoint);

// False only for a path under "/Volumes" whose volume folder is missing.
bool isVolumeMountedForPath(const QString &path);
// The same for paths under "/Volumes/"; writes the folder it checks to the
// system console.
bool isDriveMountedForPath(const QString &path);

// The mounted local volume holding PATH; "/" when none does, none for a path
// under "/Volumes" that no mounted volume holds.
std::optional<QString> volumeMountPointForPath(const QString &path);

}  // namespace HXFileManager
