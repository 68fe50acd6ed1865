#include "platform/Volumes.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <mntent.h>
#include <sys/statvfs.h>

#include <cstdio>
#include <vector>

namespace platform {

namespace {

struct MountEntry {
    QString device;
    QString mountPoint;
    QString type;
};

std::vector<MountEntry> mountTable()
{
    std::vector<MountEntry> entries;
    FILE *table = ::setmntent("/proc/self/mounts", "re");
    if (table == nullptr)
        return entries;
    mntent entry{};
    char buffer[4096];
    while (::getmntent_r(table, &entry, buffer, sizeof buffer) != nullptr)
        entries.push_back({QFile::decodeName(entry.mnt_fsname), QFile::decodeName(entry.mnt_dir),
                           QFile::decodeName(entry.mnt_type)});
    ::endmntent(table);
    return entries;
}

// Local volumes are the file systems that live on a block device; the kernel's
// own file systems (proc, sysfs, tmpfs...) and network shares are not volumes.
bool isLocalVolume(const MountEntry &entry)
{
    return entry.device.startsWith(QLatin1String("/dev/"));
}

QString withoutTrailingSlashes(QString path)
{
    while (path.size() > 1 && path.endsWith(QLatin1Char('/')))
        path.chop(1);
    return path;
}

// udev names links in /dev/disk/by-* with blanks and the like written as "\x20".
QString decodeUdevName(const QString &name)
{
    QByteArray bytes = QFile::encodeName(name);
    QByteArray decoded;
    for (qsizetype i = 0; i < bytes.size(); ++i) {
        if (bytes[i] == '\\' && i + 3 < bytes.size() && bytes[i + 1] == 'x') {
            bool ok = false;
            const int value = bytes.mid(i + 2, 2).toInt(&ok, 16);
            if (ok) {
                decoded.append(static_cast<char>(value));
                i += 3;
                continue;
            }
        }
        decoded.append(bytes[i]);
    }
    return QString::fromUtf8(decoded);
}

// The name under /dev/disk/<folder> whose link leads to DEVICE; empty when none.
QString deviceAlias(const QString &folder, const QString &device)
{
    const QString target = QFileInfo(device).canonicalFilePath();
    if (target.isEmpty())
        return QString();
    const QDir dir(QStringLiteral("/dev/disk/") + folder);
    for (const QFileInfo &link : dir.entryInfoList(QDir::System | QDir::Files | QDir::NoDotAndDotDot)) {
        if (link.canonicalFilePath() == target)
            return decodeUdevName(link.fileName());
    }
    return QString();
}

}  // namespace

QStringList mountedLocalVolumePaths()
{
    QStringList paths;
    for (const MountEntry &entry : mountTable()) {
        if (isLocalVolume(entry) && !paths.contains(entry.mountPoint))
            paths.append(entry.mountPoint);
    }
    return paths;
}

std::optional<QVariantMap> diskInformation(const QString &mountPoint)
{
    const QString wanted = withoutTrailingSlashes(mountPoint);
    std::optional<MountEntry> found;
    // The last mount at a place hides the earlier ones.
    for (const MountEntry &entry : mountTable()) {
        if (entry.mountPoint == wanted)
            found = entry;
    }
    if (!found)
        return std::nullopt;
    struct statvfs space {};
    if (::statvfs(QFile::encodeName(wanted).constData(), &space) != 0)
        return std::nullopt;

    QVariantMap info;
    info.insert(QStringLiteral("MountPoint"), found->mountPoint);
    info.insert(QStringLiteral("DeviceNode"), found->device);
    if (found->device.startsWith(QLatin1String("/dev/")))
        info.insert(QStringLiteral("DeviceIdentifier"), found->device.mid(5));
    info.insert(QStringLiteral("FilesystemType"), found->type);
    info.insert(QStringLiteral("FilesystemName"), found->type);
    QString volumeName = deviceAlias(QStringLiteral("by-label"), found->device);
    if (volumeName.isEmpty())
        volumeName = found->mountPoint == QLatin1String("/") ? found->mountPoint
                                                             : QFileInfo(found->mountPoint).fileName();
    info.insert(QStringLiteral("VolumeName"), volumeName);
    const QString uuid = deviceAlias(QStringLiteral("by-uuid"), found->device);
    if (!uuid.isEmpty())
        info.insert(QStringLiteral("VolumeUUID"), uuid.toUpper());
    const auto fragment = static_cast<qint64>(space.f_frsize);
    info.insert(QStringLiteral("TotalSize"), static_cast<qint64>(space.f_blocks) * fragment);
    info.insert(QStringLiteral("FreeSpace"), static_cast<qint64>(space.f_bavail) * fragment);
    info.insert(QStringLiteral("VolumeAllocationBlockSize"), fragment);
    const bool writable = (space.f_flag & ST_RDONLY) == 0;
    info.insert(QStringLiteral("Writable"), writable);
    info.insert(QStringLiteral("WritableVolume"), writable);
    return info;
}

}  // namespace platform
