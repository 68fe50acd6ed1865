#pragma once

// Mounted volumes: which local file systems are mounted where, and what the
// system tells about one of them.

#include <QString>
#include <QStringList>
#include <QVariantMap>

#include <optional>

namespace platform {

// Mount points of the local file systems (those on a block device), in the order
// they were mounted, each once, "/" included.
QStringList mountedLocalVolumePaths();

// Information about the file system mounted at MOUNTPOINT, under the key names
// of "diskutil info -plist" (MountPoint, DeviceNode, DeviceIdentifier,
// FilesystemType, FilesystemName, VolumeName, VolumeUUID, TotalSize, FreeSpace,
// VolumeAllocationBlockSize, Writable, WritableVolume); none when nothing is
// mounted exactly there.
std::optional<QVariantMap> diskInformation(const QString &mountPoint);

}  // namespace platform
