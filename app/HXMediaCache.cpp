#include "app/HXMediaCache.h"

#include "diagnostics/HXLog.h"
#include "platform/Folder.h"
#include "platform/FolderScan.h"
#include "platform/Trash.h"
#include "system/HXFormat.h"
#include "system/HXLocalPaths.h"
#include "system/HXPath.h"
#include "system/HXUsersTree.h"

#include <QFile>
#include <QLocale>
#include <QUrl>

#include <cerrno>
#include <functional>

namespace HXMediaCache {

namespace {

// Sub-folders deeper than this are listed as left, not searched: the editor
// nests a level or two, a loop of folders could nest without end.
constexpr int kMaxDepth = 32;

bool isCacheFile(const QString &name)
{
    const qsizetype dot = name.lastIndexOf(QLatin1Char('.'));
    if (dot <= 0)
        return false;
    const QStringView extension = QStringView(name).mid(dot + 1);
    for (const FileType &type : cacheFileTypes())
        if (extension.compare(QLatin1String(type.extension), Qt::CaseInsensitive) == 0)
            return true;
    return false;
}

enum class Verdict { Clear, Keep, Other };

Verdict judge(const QString &name, const struct stat &info, const Rule &rule)
{
    if (!S_ISREG(info.st_mode) || !isCacheFile(name))
        return Verdict::Other;
    if (rule.olderThanDays) {
        const qint64 modified = qint64{info.st_mtim.tv_sec} * 1000 + info.st_mtim.tv_nsec / 1000000;
        const qint64 limit = rule.now.toMSecsSinceEpoch() - qint64{*rule.olderThanDays} * 86400 * 1000;
        if (modified >= limit)
            return Verdict::Keep;
    }
    return Verdict::Clear;
}

using Visit = std::function<void(const platform::Folder &folder, const QString &name, const QString &path,
                                 const struct stat &info)>;

// Calls VISIT for every item below FOLDER but sub-folders, which are searched;
// links are items, never followed.
void walk(const platform::Folder &folder, const QString &path, int depth, Folder &result, const Visit &visit)
{
    QStringList names;
    platform::forEachEntry(
        folder, [&names](const char *name, platform::EntryKind) { names.append(QFile::decodeName(name)); });
    for (const QString &name : names) {
        const QString entry = HXPath::appendingComponent(path, name);
        const std::optional<struct stat> info = folder.infoOf(name);
        if (!info)
            continue;  // gone meanwhile
        if (S_ISDIR(info->st_mode)) {
            const std::optional<platform::Folder> subfolder =
                depth < kMaxDepth ? platform::openSubfolder(folder, QFile::encodeName(name).constData())
                                  : std::nullopt;
            if (subfolder)
                walk(*subfolder, entry, depth + 1, result, visit);
            else
                result.others.push_back({entry, 0});
            continue;
        }
        visit(folder, name, entry, *info);
    }
}

// Moves one cache folder's files into a single collection in the Trash (one
// record, a rename per file); a file the collection cannot take because it lies
// on another file system goes to the Trash on its own.
class Mover {
public:
    Mover(const QString &folderPath, QStringList &trashedPaths)
        : m_folderPath(folderPath), m_trashedPaths(trashedPaths)
    {
    }
    ~Mover()
    {
        if (m_collection)
            m_collection->discardIfEmpty();
    }
    Mover(const Mover &) = delete;
    Mover &operator=(const Mover &) = delete;

    bool move(const platform::Folder &folder, const QString &name, const QString &entry)
    {
        if (!m_collection && !m_collectionFailed) {
            int error = 0;
            m_collection = platform::trash::Collection::make(m_folderPath, m_trash, &error);
            if (!m_collection) {
                HXLog::appendLog(u"Unable to make a folder for %@ in the Trash: %@", m_folderPath,
                                 qt_error_string(error));
                m_collectionFailed = true;
            }
        }
        platform::trash::Outcome trashed;
        trashed.error = EXDEV;
        if (m_collection)
            trashed = m_collection->add(folder, name, entry.mid(m_folderPath.size() + 1));
        if (trashed.error == EXDEV)
            trashed = platform::trash::moveToTrash(folder, name, entry, m_trash);
        if (!trashed.trashed) {
            HXLog::appendLog(u"Unable to move %@ to the Trash: %@", entry, qt_error_string(trashed.error));
            return false;
        }
        m_trashedPaths.append(trashed.trashedPath);
        return true;
    }

private:
    const QString m_folderPath;
    const QString m_trash = HXLocalPaths::trashDirectory();
    QStringList &m_trashedPaths;
    std::optional<platform::trash::Collection> m_collection;
    bool m_collectionFailed = false;
};

Outcome run(const Rule &rule, bool move)
{
    Outcome outcome{rule, {}, {}};
    for (const QString &path : folders()) {
        Folder result{path, {}, {}, {}, {}};
        const HXActingForUser acting(path);
        Mover mover(path, outcome.trashedPaths);
        if (const std::optional<platform::Folder> top = platform::Folder::open(path)) {
            walk(*top, path, 0, result,
                 [&](const platform::Folder &folder, const QString &name, const QString &entry,
                     const struct stat &info) {
                     const Item item{entry, qint64{info.st_size}};
                     switch (judge(name, info, rule)) {
                     case Verdict::Other:
                         result.others.push_back(item);
                         return;
                     case Verdict::Keep:
                         result.kept.push_back(item);
                         return;
                     case Verdict::Clear:
                         break;
                     }
                     if (!move || mover.move(folder, name, entry))
                         result.cleared.push_back(item);
                     else
                         result.failed.push_back(item);
                 });
        }
        outcome.folders.push_back(std::move(result));
    }
    return outcome;
}

QVariantList pathsOf(const std::vector<Item> &items)
{
    QVariantList paths;
    for (const Item &item : items)
        paths.append(item.path);
    return paths;
}

}  // namespace

const std::vector<FileType> &cacheFileTypes()
{
    static const std::vector<FileType> types{
        {"cfa", "conformed audio"},         {"pek", "audio peaks (waveforms)"},
        {"ims", "image and frame indexes"}, {"mpgindex", "MPEG stream indexes"},
        {"qtindex", "QuickTime indexes"},   {"mcdb", "the media cache database"},
        {"prmdc", "media cache data"},      {"xmpses", "XMP metadata sessions"},
    };
    return types;
}

QStringList folders()
{
    const QString common =
        HXPath::appendingComponent(HXLocalPaths::appSupportDirectory(true), QStringLiteral("Adobe/Common"));
    return {HXPath::appendingComponent(common, QStringLiteral("Media Cache Files")),
            HXPath::appendingComponent(common, QStringLiteral("Media Cache"))};
}

qint64 Folder::clearedBytes() const
{
    qint64 bytes = 0;
    for (const Item &item : cleared)
        bytes += item.bytes;
    return bytes;
}

int Outcome::clearedFiles() const
{
    int files = 0;
    for (const Folder &folder : folders)
        files += static_cast<int>(folder.cleared.size());
    return files;
}

qint64 Outcome::clearedBytes() const
{
    qint64 bytes = 0;
    for (const Folder &folder : folders)
        bytes += folder.clearedBytes();
    return bytes;
}

Outcome survey(const Rule &rule)
{
    return run(rule, false);
}

Outcome clear(const Rule &rule)
{
    return run(rule, true);
}

QVariantMap toVariant(const Outcome &outcome, Detail detail)
{
    QVariantList folderList;
    qsizetype trashed = 0;
    for (const Folder &folder : outcome.folders) {
        QVariantList files;
        QByteArray trashLines;
        for (const Item &item : folder.cleared) {
            if (detail == Detail::Files)
                files.append(
                    QVariantMap{{QStringLiteral("path"), item.path}, {QStringLiteral("bytes"), item.bytes}});
            // One line per file, "TRASHEDPATH ORIGINALPATH" percent-encoded: a
            // hundred thousand files stay one value of the record.
            if (detail == Detail::TrashedPlaces && trashed < outcome.trashedPaths.size())
                trashLines += QUrl::toPercentEncoding(outcome.trashedPaths.at(trashed++), "/") + ' ' +
                              QUrl::toPercentEncoding(item.path, "/") + '\n';
        }
        QVariantMap map{
            {QStringLiteral("path"), folder.path},
            {QStringLiteral("files"), static_cast<qint64>(folder.cleared.size())},
            {QStringLiteral("bytes"), folder.clearedBytes()},
            {QStringLiteral("keptNewer"), pathsOf(folder.kept)},
            {QStringLiteral("left"), pathsOf(folder.others)},
        };
        if (detail == Detail::Files)
            map.insert(QStringLiteral("cleared"), files);
        else
            map.insert(QStringLiteral("failed"), pathsOf(folder.failed));
        if (detail == Detail::TrashedPlaces)
            map.insert(QStringLiteral("trashed"), QString::fromLatin1(trashLines));
        folderList.append(map);
    }
    QVariantMap map{{QStringLiteral("folders"), folderList},
                    {QStringLiteral("files"), outcome.clearedFiles()},
                    {QStringLiteral("bytes"), outcome.clearedBytes()}};
    if (outcome.rule.olderThanDays)
        map.insert(QStringLiteral("olderThanDays"), *outcome.rule.olderThanDays);
    return map;
}

QString describeSize(qint64 bytes)
{
    return HXFormat(u"%@ (%lli bytes)", QLocale::c().formattedDataSize(bytes, 1, QLocale::DataSizeSIFormat),
                    static_cast<long long>(bytes));
}

QStringList summaryLines(const Outcome &outcome)
{
    QStringList lines;
    for (const Folder &folder : outcome.folders) {
        lines.append(HXFormat(u"Moved %i file%@ (%@) from %@ to the Trash.",
                              static_cast<int>(folder.cleared.size()),
                              folder.cleared.size() == 1 ? QString() : QStringLiteral("s"),
                              describeSize(folder.clearedBytes()), folder.path));
        if (!folder.failed.empty())
            lines.append(HXFormat(u"  Could not move %i file(s); see the log.",
                                  static_cast<int>(folder.failed.size())));
        if (!folder.kept.empty())
            lines.append(HXFormat(u"  Kept %i newer cache file(s).", static_cast<int>(folder.kept.size())));
        for (const Item &item : folder.others)
            lines.append(HXFormat(u"  Left in place (not a cache file): %@", item.path));
    }
    lines.append(QStringLiteral("Empty the Trash to free the space."));
    return lines;
}

}  // namespace HXMediaCache
