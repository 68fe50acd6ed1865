#include "fs/HXArchive.h"

#include "platform/Descriptor.h"
#include "platform/Folder.h"

#include <QFile>

#include <archive.h>
#include <archive_entry.h>

#include <algorithm>
#include <array>
#include <fcntl.h>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

// Both directions work on opened folders (platform/Folder.h): the archive is a
// file created exclusively and handed to libarchive as a descriptor, the tree is
// read and written entry by entry relative to its folder, and no link in the
// way is ever followed. So a user who swaps a folder or plants a link while root
// archives cannot send a byte anywhere else.

namespace {

using platform::Descriptor;

struct ArchiveReadDeleter {
    void operator()(archive *a) const { archive_read_free(a); }
};
struct ArchiveWriteDeleter {
    void operator()(archive *a) const { archive_write_free(a); }
};
struct EntryDeleter {
    void operator()(archive_entry *e) const { archive_entry_free(e); }
};
using ArchiveReader = std::unique_ptr<archive, ArchiveReadDeleter>;
using ArchiveWriter = std::unique_ptr<archive, ArchiveWriteDeleter>;
using Entry = std::unique_ptr<archive_entry, EntryDeleter>;

bool sameObject(const struct stat &a, const struct stat &b)
{
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

// Writes the file data of FD, exactly SIZE bytes as its header announced.
bool writeData(archive *zip, int fd, la_int64_t size)
{
    std::array<char, 64 * 1024> buffer{};
    while (size > 0) {
        const ssize_t count =
            ::read(fd, buffer.data(), static_cast<size_t>(std::min<la_int64_t>(size, buffer.size())));
        if (count <= 0)
            return false;
        if (archive_write_data(zip, buffer.data(), static_cast<size_t>(count)) != count)
            return false;
        size -= count;
    }
    return true;
}

struct Writer {
    archive *zip;
    struct stat archiveFile;  // left out when it lies inside the tree

    bool writeHeader(const struct stat &info, const QByteArray &archivePath, const QByteArray *symlink) const
    {
        Entry entry(archive_entry_new());
        archive_entry_copy_stat(entry.get(), &info);
        archive_entry_copy_pathname(entry.get(), archivePath.constData());
        if (symlink) {
            archive_entry_copy_symlink(entry.get(), symlink->constData());
            archive_entry_set_size(entry.get(), symlink->size());
        } else if (S_ISDIR(info.st_mode)) {
            archive_entry_set_size(entry.get(), 0);
        }
        return archive_write_header(zip, entry.get()) >= ARCHIVE_WARN;
    }

    // Stores entry NAME of FOLDER under ARCHIVEPATH, folders with their contents.
    // Each entry describes what was opened, whatever lies under the name by now.
    bool writeItem(const platform::Folder &folder, const QString &name, const QByteArray &archivePath) const
    {
        const std::optional<struct stat> info = folder.infoOf(name);
        if (!info)
            return false;
        if (sameObject(*info, archiveFile))
            return true;
        if (S_ISDIR(info->st_mode)) {
            const std::optional<platform::Folder> inside = folder.realFolder(name);
            const std::optional<struct stat> opened = inside ? inside->info() : std::nullopt;
            const QByteArray prefix = archivePath + '/';
            return opened && writeHeader(*opened, prefix, nullptr) && writeChildren(*inside, prefix);
        }
        if (S_ISREG(info->st_mode)) {
            const Descriptor data(folder.openFileForReading(name));
            struct stat opened {};
            if (data.get() < 0 || ::fstat(data.get(), &opened) != 0)
                return false;
            if (sameObject(opened, archiveFile))
                return true;
            return writeHeader(opened, archivePath, nullptr) && writeData(zip, data.get(), opened.st_size);
        }
        if (S_ISLNK(info->st_mode)) {
            const std::optional<QByteArray> target = folder.linkTarget(name);
            return target && writeHeader(*info, archivePath, &*target);
        }
        return true;  // devices, sockets and pipes have no place in a zip
    }

    bool writeChildren(const platform::Folder &folder, const QByteArray &prefix) const
    {
        int error = 0;
        const QStringList names = folder.entries(&error);
        if (error != 0)
            return false;
        for (const QString &name : names)
            if (!writeItem(folder, name, prefix + QFile::encodeName(name)))
                return false;
        return true;
    }
};

// The entry path EXTRACTED may only name something inside the destination.
bool isContained(const QByteArray &extracted)
{
    if (extracted.startsWith('/'))
        return false;
    for (const QByteArray &component : extracted.split('/'))
        if (component == "..")
            return false;
    return true;
}

// The components of a contained entry path, empty and "." ones left out.
QStringList componentsOf(const QByteArray &path)
{
    QStringList components;
    for (const QByteArray &component : path.split('/'))
        if (!component.isEmpty() && component != ".")
            components.append(QFile::decodeName(component));
    return components;
}

// The folder holding the last of COMPONENTS inside ROOT, never reached through
// a link, not even one the archive itself has just unpacked. With MAKE the
// missing folders on the way are made.
std::optional<platform::Folder> folderHolding(const platform::Folder &root, const QStringList &components,
                                              bool make)
{
    if (components.isEmpty())
        return std::nullopt;
    std::optional<platform::Folder> current = root.duplicate();
    for (qsizetype i = 0; current && i + 1 < components.size(); ++i) {
        std::optional<platform::Folder> next = current->realFolder(components[i]);
        if (!next && make && !current->contains(components[i]))
            next = current->makeFolder(components[i], 0755);
        current = std::move(next);
    }
    return current;
}

// Anything but a folder in NAME's place goes, as the disk writer replaces it.
void clearPlace(const platform::Folder &folder, const QString &name)
{
    const std::optional<struct stat> existing = folder.infoOf(name);
    if (existing && !S_ISDIR(existing->st_mode))
        folder.removeEntry(name);
}

// Set-id bits are never unpacked: root would hand its own identity to whatever
// the archive holds.
mode_t permissionsOf(archive_entry *entry)
{
    return static_cast<mode_t>(archive_entry_perm(entry)) & 01777;
}

std::array<struct timespec, 2> timesOf(archive_entry *entry)
{
    std::array<struct timespec, 2> times{};
    times[0] = archive_entry_atime_is_set(entry)
                   ? timespec{archive_entry_atime(entry), archive_entry_atime_nsec(entry)}
                   : timespec{0, UTIME_OMIT};
    times[1] = timespec{archive_entry_mtime(entry), archive_entry_mtime_nsec(entry)};
    return times;
}

bool unpackFile(archive *zip, const platform::Folder &folder, const QString &name, archive_entry *entry)
{
    clearPlace(folder, name);
    const Descriptor out(folder.createFile(name, 0600));
    if (out.get() < 0)
        return false;
    const void *block = nullptr;
    size_t size = 0;
    la_int64_t offset = 0;
    int read = ARCHIVE_OK;
    while ((read = archive_read_data_block(zip, &block, &size, &offset)) == ARCHIVE_OK) {
        for (size_t done = 0; done < size;) {
            const ssize_t written = ::pwrite(out.get(), static_cast<const char *>(block) + done, size - done,
                                             static_cast<off_t>(offset + static_cast<la_int64_t>(done)));
            if (written <= 0)
                return false;
            done += static_cast<size_t>(written);
        }
    }
    if (read != ARCHIVE_EOF)
        return false;
    const std::array<struct timespec, 2> times = timesOf(entry);
    return ::fchmod(out.get(), permissionsOf(entry) & 0777) == 0 && ::futimens(out.get(), times.data()) == 0;
}

// A folder of the archive whose mode and times wait until its contents are in:
// a read-only folder would otherwise keep them out.
struct FolderFixup {
    QStringList path;
    struct stat made;
    mode_t mode;
    std::array<struct timespec, 2> times;
};

// Found again from ROOT rather than held open (an archive may hold more folders
// than a process may have descriptors), and only if it is still the very folder
// unpacked into.
void applyFixup(const platform::Folder &root, const FolderFixup &fixup)
{
    const std::optional<platform::Folder> parent = folderHolding(root, fixup.path, false);
    const std::optional<platform::Folder> folder =
        parent ? parent->realFolder(fixup.path.last()) : std::nullopt;
    const std::optional<struct stat> now = folder ? folder->info() : std::nullopt;
    if (!now || !sameObject(*now, fixup.made))
        return;
    const Descriptor fd(::openat(folder->descriptor(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (fd.get() < 0)
        return;
    ::fchmod(fd.get(), fixup.mode);
    ::futimens(fd.get(), fixup.times.data());
}

}  // namespace

namespace HXArchive {

bool compress(const QString &source, const QString &destination, bool keepParent)
{
    const std::optional<platform::Item> from = platform::Item::open(source);
    const std::optional<struct stat> sourceInfo = from ? from->info() : std::nullopt;
    const std::optional<platform::Item> to = platform::Item::open(destination);
    if (!sourceInfo || !to)
        return false;
    const bool isFolder = S_ISDIR(sourceInfo->st_mode);

    const int fd = to->folder.createFile(to->name, 0644);
    if (fd < 0)
        return false;
    const Descriptor out(fd);
    Writer writer{nullptr, {}};
    ArchiveWriter zip(archive_write_new());
    bool ok = zip && ::fstat(out.get(), &writer.archiveFile) == 0;
    if (ok) {
        writer.zip = zip.get();
        archive_write_set_format_zip(zip.get());
        archive_write_set_options(zip.get(), "zip:hdrcharset=UTF-8");
        ok = archive_write_open_fd(zip.get(), out.get()) == ARCHIVE_OK;
    }
    if (ok) {
        if (keepParent || !isFolder) {
            ok = writer.writeItem(from->folder, from->name, QFile::encodeName(from->name));
        } else {
            const std::optional<platform::Folder> inside = from->folder.realFolder(from->name);
            ok = inside && writer.writeChildren(*inside, QByteArray());
        }
        ok = archive_write_close(zip.get()) == ARCHIVE_OK && ok;
    }
    if (!ok) {
        // Only the file made here goes: the name may have been given to another since.
        const std::optional<struct stat> now = to->info();
        if (now && sameObject(*now, writer.archiveFile))
            to->folder.removeEntry(to->name);
    }
    return ok;
}

bool decompress(const QString &archivePath, const QString &destination)
{
    const std::optional<platform::Item> source = platform::Item::open(archivePath);
    const int fd = source ? source->folder.openFileForReading(source->name) : -1;
    if (fd < 0)
        return false;
    const Descriptor in(fd);
    const std::optional<platform::Folder> root =
        platform::Folder::openMakingPath(destination, 0777, std::nullopt);
    ArchiveReader zip(archive_read_new());
    if (!root || !zip)
        return false;
    archive_read_support_format_zip(zip.get());
    if (archive_read_open_fd(zip.get(), in.get(), 64 * 1024) != ARCHIVE_OK)
        return false;

    bool ok = true;
    std::vector<FolderFixup> folders;
    archive_entry *entry = nullptr;
    for (;;) {
        const int status = archive_read_next_header(zip.get(), &entry);
        if (status == ARCHIVE_EOF)
            break;
        if (status < ARCHIVE_WARN) {
            ok = false;
            break;
        }
        const QByteArray path(archive_entry_pathname(entry));
        // Resource forks and Finder information of the archiving Mac; no such
        // thing exists here, so they are left out rather than unpacked as files.
        if (path.startsWith("__MACOSX/"))
            continue;
        const QStringList components = isContained(path) ? componentsOf(path) : QStringList();
        // "./" is the destination itself, which is there already.
        if (components.isEmpty() && isContained(path) && archive_entry_filetype(entry) == AE_IFDIR)
            continue;
        const std::optional<platform::Folder> folder = folderHolding(*root, components, true);
        if (!folder) {
            ok = false;
            continue;
        }
        const QString name = components.last();
        if (const char *link = archive_entry_hardlink(entry)) {
            const QStringList target = isContained(link) ? componentsOf(link) : QStringList();
            const std::optional<platform::Folder> targetFolder = folderHolding(*root, target, false);
            clearPlace(*folder, name);
            ok = targetFolder &&
                 ::linkat(targetFolder->descriptor(), QFile::encodeName(target.last()).constData(),
                          folder->descriptor(), QFile::encodeName(name).constData(), 0) == 0 &&
                 ok;
            continue;
        }
        switch (archive_entry_filetype(entry)) {
        case AE_IFDIR: {
            // Root's alone until its own mode is applied at the end.
            std::optional<platform::Folder> made = folder->realFolder(name);
            if (!made && !folder->contains(name))
                made = folder->makeFolder(name, 0700);
            const std::optional<struct stat> info = made ? made->info() : std::nullopt;
            if (!info) {
                ok = false;
                break;
            }
            folders.push_back({components, *info, permissionsOf(entry), timesOf(entry)});
            break;
        }
        case AE_IFLNK:
            clearPlace(*folder, name);
            ok = folder->makeLink(QByteArray(archive_entry_symlink(entry)), name) == 0 && ok;
            break;
        case AE_IFREG:
            ok = unpackFile(zip.get(), *folder, name, entry) && ok;
            break;
        default:
            break;
        }
    }
    archive_read_close(zip.get());
    // Deepest first, whatever order the archive listed them in: a folder that
    // shuts out its own user is still entered to reach the folders below it.
    std::stable_sort(folders.begin(), folders.end(), [](const FolderFixup &a, const FolderFixup &b) {
        return a.path.size() > b.path.size();
    });
    for (const FolderFixup &fixup : folders)
        applyFixup(*root, fixup);
    return ok;
}

}  // namespace HXArchive
