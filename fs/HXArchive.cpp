#include "fs/HXArchive.h"

#include "system/HXPath.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <archive.h>
#include <archive_entry.h>

#include <array>
#include <memory>

namespace {

struct ArchiveReadDeleter {
    void operator()(archive *a) const { archive_read_free(a); }
};
struct ArchiveWriteDeleter {
    void operator()(archive *a) const { archive_write_free(a); }
};
using ArchiveReader = std::unique_ptr<archive, ArchiveReadDeleter>;
using ArchiveWriter = std::unique_ptr<archive, ArchiveWriteDeleter>;

bool copyData(archive *from, archive *to)
{
    std::array<char, 64 * 1024> buffer{};
    for (;;) {
        const la_ssize_t count = archive_read_data(from, buffer.data(), buffer.size());
        if (count < 0)
            return false;
        if (count == 0)
            return true;
        if (archive_write_data(to, buffer.data(), static_cast<size_t>(count)) != count)
            return false;
    }
}

bool writeEntries(archive *disk, archive *zip, const QByteArray &base, const QByteArray &destination,
                  bool skipRoot)
{
    archive_entry *entry = nullptr;
    for (;;) {
        const int status = archive_read_next_header(disk, &entry);
        if (status == ARCHIVE_EOF)
            return true;
        if (status < ARCHIVE_WARN)
            return false;
        const QByteArray path(archive_entry_pathname(entry));
        if (archive_read_disk_can_descend(disk))
            archive_read_disk_descend(disk);
        if (path == destination)
            continue;
        // The folder given itself, when its entries are stored without it.
        if (skipRoot && path + '/' == base)
            continue;
        const QByteArray relative = path.startsWith(base) ? path.mid(base.size()) : path;
        archive_entry_copy_pathname(entry, relative.constData());
        if (archive_write_header(zip, entry) < ARCHIVE_WARN)
            return false;
        if (archive_entry_filetype(entry) == AE_IFREG && archive_entry_size(entry) > 0 &&
            !copyData(disk, zip))
            return false;
    }
}

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

}  // namespace

namespace HXArchive {

bool compress(const QString &source, const QString &destination, bool keepParent)
{
    const QString cleanSource = QDir::cleanPath(QFileInfo(source).absoluteFilePath());
    const QFileInfo sourceInfo(cleanSource);
    if (!sourceInfo.exists() && !sourceInfo.isSymLink())
        return false;
    const bool isFolder = sourceInfo.isDir() && !sourceInfo.isSymLink();
    const QString baseFolder =
        (keepParent || !isFolder) ? HXPath::deletingLastComponent(cleanSource) : cleanSource;
    QByteArray base = QFile::encodeName(baseFolder);
    if (!base.endsWith('/'))
        base += '/';

    ArchiveWriter zip(archive_write_new());
    ArchiveReader disk(archive_read_disk_new());
    if (!zip || !disk)
        return false;
    archive_write_set_format_zip(zip.get());
    archive_write_set_options(zip.get(), "zip:hdrcharset=UTF-8");
    archive_read_disk_set_symlink_physical(disk.get());
    archive_read_disk_set_standard_lookup(disk.get());
    archive_read_disk_set_behavior(disk.get(), ARCHIVE_READDISK_NO_XATTR | ARCHIVE_READDISK_NO_ACL |
                                                   ARCHIVE_READDISK_NO_FFLAGS);

    const QByteArray destinationName =
        QFile::encodeName(QDir::cleanPath(QFileInfo(destination).absoluteFilePath()));
    bool ok = archive_write_open_filename(zip.get(), destinationName.constData()) == ARCHIVE_OK;
    if (ok) {
        ok = archive_read_disk_open(disk.get(), QFile::encodeName(cleanSource).constData()) == ARCHIVE_OK &&
             writeEntries(disk.get(), zip.get(), base, destinationName, !keepParent && isFolder);
        archive_read_close(disk.get());
        ok = archive_write_close(zip.get()) == ARCHIVE_OK && ok;
    }
    if (!ok)
        QFile::remove(QFile::decodeName(destinationName));
    return ok;
}

bool decompress(const QString &archivePath, const QString &destination)
{
    if (!QFileInfo(archivePath).isFile() || !QDir().mkpath(destination))
        return false;
    // Resolved, so that the symbolic-link guard only judges links inside the archive.
    const QString root = QFileInfo(destination).canonicalFilePath();
    ArchiveReader zip(archive_read_new());
    ArchiveWriter disk(archive_write_disk_new());
    if (!zip || !disk || root.isEmpty())
        return false;
    archive_read_support_format_zip(zip.get());
    archive_write_disk_set_options(disk.get(), ARCHIVE_EXTRACT_TIME | ARCHIVE_EXTRACT_PERM |
                                                   ARCHIVE_EXTRACT_SECURE_NODOTDOT |
                                                   ARCHIVE_EXTRACT_SECURE_SYMLINKS);
    archive_write_disk_set_standard_lookup(disk.get());
    if (archive_read_open_filename(zip.get(), QFile::encodeName(archivePath).constData(), 64 * 1024) !=
        ARCHIVE_OK)
        return false;

    const QByteArray prefix = QFile::encodeName(root) + '/';
    bool ok = true;
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
        if (!isContained(path)) {
            ok = false;
            continue;
        }
        archive_entry_copy_pathname(entry, (prefix + path).constData());
        if (const char *link = archive_entry_hardlink(entry)) {
            const QByteArray target(link);
            if (!isContained(target)) {
                ok = false;
                continue;
            }
            archive_entry_copy_hardlink(entry, (prefix + target).constData());
        }
        if (archive_write_header(disk.get(), entry) < ARCHIVE_WARN) {
            ok = false;
            continue;
        }
        if (archive_entry_size(entry) > 0) {
            const void *block = nullptr;
            size_t size = 0;
            la_int64_t offset = 0;
            int read = ARCHIVE_OK;
            while ((read = archive_read_data_block(zip.get(), &block, &size, &offset)) == ARCHIVE_OK)
                if (archive_write_data_block(disk.get(), block, size, offset) < ARCHIVE_WARN) {
                    read = ARCHIVE_FATAL;
                    break;
                }
            if (read != ARCHIVE_EOF)
                ok = false;
        }
        if (archive_write_finish_entry(disk.get()) < ARCHIVE_WARN)
            ok = false;
    }
    archive_read_close(zip.get());
    if (archive_write_close(disk.get()) < ARCHIVE_WARN)
        ok = false;
    return ok;
}

}  // namespace HXArchive
