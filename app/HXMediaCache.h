#pragma once
// Premiere Pro's media cache in the console user's tree: the files of the types
// the editor writes there (optionally only those older than some days) go to the
// Trash; everything else found there stays and is listed. Entirely the user's
// part: as root it is done with her identity. The survey and the clean-up judge
// every file by the same rule, so a preview lists what a clean-up then moves.

#include <QDateTime>
#include <QString>
#include <QStringList>
#include <QVariantMap>

#include <deque>
#include <optional>
#include <vector>

namespace HXMediaCache {

// One kind of file the editor writes into its cache: the extension (compared
// case-blind) and what it holds. docs/MEDIA_CACHE.md gives the reason for each.
struct FileType {
    const char *extension;
    const char *contents;
};
const std::vector<FileType> &cacheFileTypes();

// The editor's default cache folders, in the order they are cleared.
QStringList folders();

// Files are cleared when their type is in the table and, with an age limit, when
// they were last modified more than that many days before NOW.
struct Rule {
    std::optional<int> olderThanDays;
    QDateTime now = QDateTime::currentDateTimeUtc();
};

// A file (or a folder left in place) below a cache folder. Only its path below
// that folder is kept: a survey may hold a hundred thousand of them, and long
// paths would make it slower than reading the tree.
struct Item {
    QString relativePath;
    qint64 bytes = 0;
};

// Items grow in blocks rather than by copying: a survey may hold a hundred thousand.
using Items = std::deque<Item>;

struct Folder {
    QString path;
    Items cleared;  // what a clean-up moves (or moved) to the Trash
    Items kept;     // cache files newer than the age limit
    Items others;   // anything else: not the editor's, left in place
    Items failed;   // cache files a clean-up could not move
    // The clean-up's folder in the Trash holding the moved files, each at its
    // path below PATH; empty when none was needed.
    QString trashFolder;
    qint64 clearedBytes() const;
    QString pathOf(const Item &item) const;
};

struct Outcome {
    Rule rule;
    std::vector<Folder> folders;
    // Each moved file's place in the Trash, in the order of FOLDERS' cleared items.
    QStringList trashedPaths;
    int clearedFiles() const;
    qint64 clearedBytes() const;
};

// What a clean-up under RULE would move, changing nothing.
Outcome survey(const Rule &rule);
// Moves every cache file RULE takes to the Trash, judging each as survey() does.
Outcome clear(const Rule &rule);

// What toVariant tells of each folder besides its totals and what was left:
// every file it would clear with its size (a preview), where each moved file
// went (the run record, so a restore can bring it back), or neither.
enum class Detail { Files, TrashedPlaces, Totals };
// As docs/RUN_RECORDS.md describes the run record's "mediaCache".
QVariantMap toVariant(const Outcome &outcome, Detail detail);
// "Moved 12 files (1.5 MB) from FOLDER to the Trash." per folder, what was left,
// and the reminder that emptying the Trash frees the space.
QStringList summaryLines(const Outcome &outcome);
// "2.1 GB (2147483648 bytes)"; "15 bytes" below a kilobyte.
QString describeSize(qint64 bytes);

}  // namespace HXMediaCache
