#include "fs/HXFileAttributes.h"

#include "diagnostics/HXLog.h"
#include "platform/ExtendedAttributes.h"
#include "platform/FileFlags.h"
#include "platform/Folder.h"
#include "platform/Platform.h"
#include "system/HXFormat.h"
#include "system/HXUsersTree.h"

#include <QFile>
#include <QStringDecoder>

#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <utility>
#include <vector>

namespace HXFileManager {

namespace {

// Longest attribute value metadataValueForKey reads.
constexpr std::size_t kMetadataReadLimit = 255;

QByteArray childPath(const QByteArray &folder, const char *name)
{
    QByteArray path = folder;
    if (!path.endsWith('/'))
        path.append('/');
    return path.append(name);
}

// Entry names of FOLDER without "." and ".."; none when it cannot be listed.
std::vector<QByteArray> entryNames(const QByteArray &folder)
{
    std::vector<QByteArray> names;
    DIR *dir = ::opendir(folder.constData());
    if (dir == nullptr)
        return names;
    while (const dirent *entry = ::readdir(dir)) {
        if (std::strcmp(entry->d_name, ".") != 0 && std::strcmp(entry->d_name, "..") != 0)
            names.emplace_back(entry->d_name);
    }
    ::closedir(dir);
    return names;
}

using FolderIdentity = std::pair<dev_t, ino_t>;

std::uint64_t sizeBelow(const QByteArray &path, std::vector<FolderIdentity> &openFolders)
{
    struct stat followed {};
    if (::stat(path.constData(), &followed) == 0 && S_ISDIR(followed.st_mode)) {
        // A link back to a folder being summed would recurse for ever; it adds nothing.
        const FolderIdentity identity{followed.st_dev, followed.st_ino};
        if (std::find(openFolders.begin(), openFolders.end(), identity) != openFolders.end())
            return 0;
        openFolders.push_back(identity);
        std::uint64_t total = 0;
        for (const QByteArray &name : entryNames(path))
            total += sizeBelow(childPath(path, name.constData()), openFolders);
        openFolders.pop_back();
        return total;
    }
    // The item's own size: a link to a file counts as the link.
    struct stat own {};
    if (::lstat(path.constData(), &own) != 0)
        return 0;
    return static_cast<std::uint64_t>(own.st_size);
}

void setLocked(const QString &path, bool locked)
{
    const HXActingForUser acting(path);
    if (const int error = platform::setImmutable(path, locked))
        HXLog::fastAppendLog(u"Unable to unlock file %@: %@", path, qt_error_string(error));
}

// Every entry below the opened FOLDER (known as PATH), but no folder itself.
// Never through a link: as root that would reach outside the folder.
void setFolderLocked(const platform::Folder &folder, const QString &path, bool locked)
{
    for (const QString &name : folder.entries()) {
        const QString child = path + QLatin1Char('/') + name;
        if (const std::optional<platform::Folder> subfolder = folder.realFolder(name))
            setFolderLocked(*subfolder, child, locked);
        else if (const int error = folder.setImmutable(name, locked))
            HXLog::fastAppendLog(u"Unable to unlock file %@: %@", child, qt_error_string(error));
    }
}

void setFolderLocked(const QString &folder, bool locked)
{
    const HXActingForUser acting(folder);
    if (const std::optional<platform::Folder> opened = platform::Folder::open(folder))
        setFolderLocked(*opened, folder.endsWith(QLatin1Char('/')) ? folder.chopped(1) : folder, locked);
}

}  // namespace

std::uint64_t fileSize(const QString &path)
{
    std::vector<FolderIdentity> openFolders;
    return sizeBelow(QFile::encodeName(path), openFolders);
}

QString formatFileSize(double size)
{
    if (size < 1024.0)
        return HXFormat(u"%0.0f B", size);
    if (size < 1048576.0)
        return HXFormat(u"%0.2f KB", size / 1024.0);
    if (size < 1073741824.0)
        return HXFormat(u"%0.2f MB", size / 1024.0 / 1024.0);
    return HXFormat(u"%0.2f GB", size / 1024.0 / 1024.0 / 1024.0);
}

bool isFileLocked(const QString &path)
{
    return platform::isImmutable(path).value_or(false);
}

void lockFile(const QString &path)
{
    setLocked(path, true);
}

void unlockFile(const QString &path)
{
    setLocked(path, false);
}

void lockFolder(const QString &folder)
{
    setFolderLocked(folder, true);
}

void unlockFolder(const QString &folder)
{
    setFolderLocked(folder, false);
}

void setPosixPermissions(unsigned long permissions, const QString &path)
{
    const HXActingForUser acting(path);
    int error = 0;
    const std::optional<platform::Item> item = platform::Item::open(path, &error);
    if (item)
        error = item->folder.setMode(item->name, static_cast<mode_t>(permissions & 07777));
    if (error != 0)
        HXLog::appendLog(u"Error setting permissions for file %@: %@", path, qt_error_string(error));
}

void disableFileSystemCachingForFile(const QString &path)
{
    // The system's cache serves the program's reads well; nothing to turn off.
    Q_UNUSED(path);
}

std::optional<QString> metadataValueForKey(const QString &key, const QString &path)
{
    int error = 0;
    const long long size = platform::extendedAttributeSize(path, key, &error);
    platform::systemLog(HXFormat(u"buffer val: %i", size));
    if (size < 0) {
        platform::systemLog(HXFormat(u"Error retrieving file attribute: %i", error));
        return std::nullopt;
    }
    if (size == 0)
        return std::nullopt;
    // Reads stop at a fixed limit whatever the size: longer values are not read.
    QByteArray buffer(static_cast<qsizetype>(std::max<long long>(size, kMetadataReadLimit)), '\0');
    if (platform::readExtendedAttribute(path, key, buffer.data(), kMetadataReadLimit, &error) < 0)
        return std::nullopt;
    QStringDecoder decoder(QStringDecoder::Utf8);
    const QString text = decoder.decode(QByteArrayView(buffer.constData(), static_cast<qsizetype>(size)));
    if (decoder.hasError())
        return std::nullopt;
    return text;
}

bool setMetadataValue(const QString &value, const QString &key, const QString &path)
{
    return platform::writeExtendedAttribute(path, key, value.toUtf8()) == 0;
}

bool setModificationDate(const QDateTime &date, const QString &path)
{
    const qint64 msecs = date.toMSecsSinceEpoch();
    struct timespec times[2]{};
    times[0].tv_nsec = UTIME_OMIT;
    times[1].tv_sec = static_cast<time_t>(msecs / 1000);
    times[1].tv_nsec = static_cast<long>((msecs % 1000) * 1000000);
    if (times[1].tv_nsec < 0) {
        times[1].tv_sec -= 1;
        times[1].tv_nsec += 1000000000;
    }
    return ::utimensat(AT_FDCWD, QFile::encodeName(path).constData(), times, 0) == 0;
}

}  // namespace HXFileManager
