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
#include <QSet>
#include <QUrl>

#include <cerrno>

namespace HXMediaCache {

namespace {

// Sub-folders deeper than this are listed as left, not searched: the editor
// nests a level or two, a loop of folders could nest without end.
constexpr int kMaxDepth = 32;

bool isCacheFile(QStringView name)
{
    const qsizetype dot = name.lastIndexOf(QLatin1Char('.'));
    if (dot <= 0)
        return false;
    const QStringView extension = name.mid(dot + 1);
    for (const FileType &type : cacheFileTypes())
        if (extension.compare(QLatin1String(type.extension), Qt::CaseInsensitive) == 0)
            return true;
    return false;
}

enum class Verdict { Clear, Keep, Other };

Verdict judge(QStringView name, const struct stat &info, const Rule &rule)
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

// Moves one cache folder's files into a single collection in the Trash (one
// record, a rename per file, or per sub-folder when all its files go); a file the
// collection cannot take because it lies on another file system goes to the
// Trash on its own.
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

    // The collection, once a file went into it.
    QString collectionPath() const
    {
        return m_collection && !m_collection->isEmpty() ? m_collection->path() : QString();
    }

    bool moveFile(const platform::Folder &folder, const QString &name, const QString &path)
    {
        platform::trash::Outcome trashed = addToCollection(folder, name, path);
        if (trashed.error == EXDEV)
            trashed = platform::trash::moveToTrash(folder, name, path, m_trash);
        if (!trashed.trashed) {
            HXLog::appendLog(u"Unable to move %@ to the Trash: %@", path, qt_error_string(trashed.error));
            return false;
        }
        m_trashedPaths.append(trashed.trashedPath);
        return true;
    }

    // Moves the sub-folder NAME of PARENT (opened as FOLDER, at PATH), all of whose
    // entries are the files NAMES, with one rename. What appeared in it meanwhile
    // goes back; NAMES that are gone are dropped. The names it moved, or none when
    // the folder stayed (its files are then moved one by one).
    std::optional<QSet<QString>> moveFolder(const platform::Folder &parent, const QString &name,
                                            const platform::Folder &folder, const QString &path,
                                            const QStringList &names)
    {
        const platform::trash::Outcome trashed = addToCollection(parent, name, path);
        if (!trashed.trashed)
            return std::nullopt;
        const QSet<QString> judged(names.begin(), names.end());
        QSet<QString> present;
        QStringList strays;
        platform::forEachEntry(folder, [&](const char *entry, platform::EntryKind) {
            const QString decoded = QFile::decodeName(entry);
            if (judged.contains(decoded))
                present.insert(decoded);
            else
                strays.append(decoded);
        });
        if (!strays.isEmpty())
            putBack(parent, name, folder, path, strays);
        for (const QString &moved : names)
            if (present.contains(moved))
                m_trashedPaths.append(HXPath::appendingComponent(trashed.trashedPath, moved));
        return present;
    }

private:
    platform::trash::Outcome addToCollection(const platform::Folder &folder, const QString &name,
                                             const QString &path)
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
            trashed = m_collection->add(folder, name, path.mid(m_folderPath.size() + 1));
        return trashed;
    }

    // Items that were not judged but went along with their folder: back into a
    // folder of the same name made in its place.
    static void putBack(const platform::Folder &parent, const QString &name, const platform::Folder &moved,
                        const QString &path, const QStringList &strays)
    {
        const std::optional<struct stat> info = moved.info();
        const mode_t mode = info ? info->st_mode & 07777 : 0755;
        int error = 0;
        std::optional<platform::Folder> again = parent.makeFolder(name, mode, &error);
        if (!again && error == EEXIST)
            again = parent.realFolder(name, &error);
        for (const QString &stray : strays) {
            error = again ? moved.rename(stray, *again, stray, false) : error;
            if (error != 0)
                HXLog::appendLog(u"%@ went to the Trash with its folder and could not be put back: %@",
                                 HXPath::appendingComponent(path, stray), qt_error_string(error));
        }
    }

    const QString m_folderPath;
    const QString m_trash = HXLocalPaths::trashDirectory();
    QStringList &m_trashedPaths;
    std::optional<platform::trash::Collection> m_collection;
    bool m_collectionFailed = false;
};

// Judges every item below a cache folder and, for a clean-up, moves what the rule
// takes. Links are items, never followed.
class Walker {
public:
    Walker(const Rule &rule, Folder &result, Mover *mover) : m_rule(rule), m_result(result), m_mover(mover) {}

    // FOLDER at PATH, the entry NAME of PARENT (none for the cache folder itself).
    void walk(const platform::Folder *parent, const QString &name, const platform::Folder &folder,
              const QString &path, int depth)
    {
        // What a clean-up moves, by name, once the listing is done.
        Items cleared;
        QStringList clearedNames;
        bool allCleared = true;
        const QString relativePrefix =
            parent ? path.mid(m_result.path.size() + 1) + QLatin1Char('/') : QString();
        // Each file's relative path is decoded from these bytes in one allocation.
        QByteArray spelled = relativePrefix.toUtf8();
        const qsizetype prefixBytes = spelled.size();
        platform::forEachEntry(folder, [&](const char *rawName, platform::EntryKind) {
            const std::optional<struct stat> info = folder.infoOf(rawName);
            if (!info)
                return;  // gone meanwhile
            spelled.truncate(prefixBytes);
            spelled.append(rawName);
            Item item{QString::fromUtf8(spelled), qint64{info->st_size}};
            const QStringView entry = QStringView(item.relativePath).mid(relativePrefix.size());
            if (S_ISDIR(info->st_mode)) {
                allCleared = false;
                const std::optional<platform::Folder> subfolder =
                    depth < kMaxDepth ? platform::openSubfolder(folder, rawName) : std::nullopt;
                if (subfolder)
                    walk(&folder, entry.toString(), *subfolder, m_result.pathOf(item), depth + 1);
                else
                    m_result.others.push_back({std::move(item.relativePath), 0});
                return;
            }
            switch (judge(entry, *info, m_rule)) {
            case Verdict::Other:
                allCleared = false;
                m_result.others.push_back(std::move(item));
                break;
            case Verdict::Keep:
                allCleared = false;
                m_result.kept.push_back(std::move(item));
                break;
            case Verdict::Clear:
                if (!m_mover) {
                    m_result.cleared.push_back(std::move(item));
                } else {
                    clearedNames.append(entry.toString());
                    cleared.push_back(std::move(item));
                }
                break;
            }
        });
        if (!m_mover || cleared.empty())
            return;
        // A sub-folder holding cache files alone goes whole: one rename for all.
        if (parent && allCleared) {
            if (const std::optional<QSet<QString>> moved =
                    m_mover->moveFolder(*parent, name, folder, path, clearedNames)) {
                for (qsizetype i = 0; i < clearedNames.size(); ++i)
                    if (moved->contains(clearedNames.at(i)))
                        m_result.cleared.push_back(std::move(cleared[i]));
                return;
            }
        }
        for (qsizetype i = 0; i < clearedNames.size(); ++i)
            (m_mover->moveFile(folder, clearedNames.at(i), m_result.pathOf(cleared[i])) ? m_result.cleared
                                                                                        : m_result.failed)
                .push_back(std::move(cleared[i]));
    }

private:
    const Rule &m_rule;
    Folder &m_result;
    Mover *m_mover;
};

Outcome run(const Rule &rule, bool move)
{
    Outcome outcome{rule, {}, {}};
    for (const QString &path : folders()) {
        Folder result{path, {}, {}, {}, {}, {}};
        const HXActingForUser acting(path);
        Mover mover(path, outcome.trashedPaths);
        if (const std::optional<platform::Folder> top = platform::Folder::open(path))
            Walker(rule, result, move ? &mover : nullptr).walk(nullptr, QString(), *top, path, 0);
        result.trashFolder = mover.collectionPath();
        outcome.folders.push_back(std::move(result));
    }
    return outcome;
}

// One line per moved file, percent-encoded, so that a hundred thousand files
// stay one value of the record and well inside a record's size: the file's path
// below FOLDER when it lies at that path in the clean-up's Trash folder, else
// "TRASHEDPATH ORIGINALPATH".
QByteArray trashedLine(const Folder &folder, const Item &item, const QString &trashedPath)
{
    const QString &relative = item.relativePath;
    if (!folder.trashFolder.isEmpty() &&
        trashedPath.size() == folder.trashFolder.size() + 1 + relative.size() &&
        trashedPath.startsWith(folder.trashFolder + QLatin1Char('/')) && trashedPath.endsWith(relative))
        return QUrl::toPercentEncoding(relative, "/") + '\n';
    return QUrl::toPercentEncoding(trashedPath, "/") + ' ' +
           QUrl::toPercentEncoding(folder.pathOf(item), "/") + '\n';
}

QVariantList pathsOf(const Folder &folder, const Items &items)
{
    QVariantList paths;
    for (const Item &item : items)
        paths.append(folder.pathOf(item));
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

QString Folder::pathOf(const Item &item) const
{
    return path + QLatin1Char('/') + item.relativePath;
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
                files.append(QVariantMap{{QStringLiteral("path"), folder.pathOf(item)},
                                         {QStringLiteral("bytes"), item.bytes}});
            if (detail == Detail::TrashedPlaces && trashed < outcome.trashedPaths.size())
                trashLines += trashedLine(folder, item, outcome.trashedPaths.at(trashed++));
        }
        QVariantMap map{
            {QStringLiteral("path"), folder.path},
            {QStringLiteral("files"), static_cast<qint64>(folder.cleared.size())},
            {QStringLiteral("bytes"), folder.clearedBytes()},
            {QStringLiteral("keptNewer"), pathsOf(folder, folder.kept)},
            {QStringLiteral("left"), pathsOf(folder, folder.others)},
        };
        if (detail == Detail::Files)
            map.insert(QStringLiteral("cleared"), files);
        else
            map.insert(QStringLiteral("failed"), pathsOf(folder, folder.failed));
        if (detail == Detail::TrashedPlaces)
            map.insert(QStringLiteral("trashed"), QString::fromLatin1(trashLines));
        if (detail == Detail::TrashedPlaces && !folder.trashFolder.isEmpty())
            map.insert(QStringLiteral("trashFolder"), folder.trashFolder);
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
    // Below a kilobyte the rounded size would only repeat the exact one.
    if (bytes < 1000)
        return HXFormat(u"%lli byte%@", static_cast<long long>(bytes),
                        bytes == 1 ? QString() : QStringLiteral("s"));
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
            lines.append(HXFormat(u"  Left in place (not a cache file): %@", folder.pathOf(item)));
    }
    lines.append(QStringLiteral("Empty the Trash to free the space."));
    return lines;
}

}  // namespace HXMediaCache
