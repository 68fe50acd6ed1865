// The media cache clean-up end to end, in the sandbox as root for anna: on a
// generated cache (files of each cache type, files of other types, a
// sub-folder, old and new files), the preview lists exactly what the clean-up
// then moves, the rest stays, restore brings everything back, and nothing is
// done while the editor runs.

#include "tests/support/Sandbox.h"
#include "tests/support/TestFiles.h"

#include <QDateTime>
#include <QDir>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <utime.h>

using namespace Qt::Literals::StringLiterals;

namespace {

const QString kCtl = u"/Applications/Mendwell.app/Contents/MacOS/mendwellctl"_s;
const QString kCommon = u"/Users/anna/Library/Application Support/Adobe/Common"_s;
const QString kFiles = kCommon + u"/Media Cache Files"_s;
const QString kDatabase = kCommon + u"/Media Cache"_s;
const QString kEditor = u"/Applications/Adobe Premiere Pro.app"_s;

// Cache files (one of each type, case-blind) and what must stay, relative to the sandbox.
const QStringList kNewCacheFiles{
    kFiles + u"/clip 1.cfa"_s,
    kFiles + u"/clip 1.pek"_s,
    kFiles + u"/still.IMS"_s,
    kFiles + u"/Sub/a.mpgindex"_s,
    kFiles + u"/Sub/b.qtindex"_s,
    kDatabase + u"/cache.mcdb"_s,
    kDatabase + u"/x.prmdc"_s,
    kDatabase + u"/s.xmpses"_s,
    // A folder of cache files alone, inside one that also holds a folder.
    kFiles + u"/Peaks/p.pek"_s,
    kFiles + u"/Peaks/Deep/q.pek"_s,
    kFiles + u"/Peaks/Deep/r.cfa"_s,
};
const QStringList kOldCacheFiles{kFiles + u"/old.cfa"_s, kFiles + u"/Sub/old.pek"_s};
const QStringList kOthers{kFiles + u"/notes.txt"_s, kFiles + u"/Sub/clip.mov"_s, kDatabase + u"/cfa"_s};

QStringList sorted(QStringList list)
{
    list.sort();
    return list;
}

QStringList clearedIn(const QJsonObject &mediaCache, const QString &key = u"cleared"_s)
{
    QStringList paths;
    for (const QJsonValue &folder : mediaCache.value(u"folders"_s).toArray())
        for (const QJsonValue &item : folder.toObject().value(key).toArray())
            paths.append(item.isObject() ? item.toObject().value(u"path"_s).toString() : item.toString());
    return sorted(paths);
}

class MediaCacheTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        SKIP_WITHOUT_SANDBOX();
        ASSERT_TRUE(box.makeFolder(u"/Library/Logs/Lanternfish"_s));
        const qint64 fortyDaysAgo = QDateTime::currentSecsSinceEpoch() - 40 * 86400;
        for (const QString &path : kNewCacheFiles + kOldCacheFiles + kOthers) {
            ASSERT_TRUE(box.writeFile(path, path.toUtf8() + QByteArray(100, 'x'), true)) << qPrintable(path);
            if (kOldCacheFiles.contains(path)) {
                const utimbuf times{fortyDaysAgo, fortyDaysAgo};
                ASSERT_EQ(::utime(QFile::encodeName(box.hostPath(path)).constData(), &times), 0);
            }
        }
        ASSERT_TRUE(disk::chmod(box.hostPath(kFiles + u"/Peaks/Deep"_s), 0750));
        before = disk::fingerprint(box.hostPath(kCommon));
    }

    QJsonObject ctl(const QStringList &arguments, int status = 0)
    {
        const ProcessResult result = box.runAsRoot(QStringList{kCtl} + arguments + QStringList{u"--json"_s});
        EXPECT_EQ(result.exitCode, status) << result.err.constData();
        return QJsonDocument::fromJson(result.out).object();
    }

    bool exists(const QString &path) const { return QFileInfo::exists(box.hostPath(path)); }

    // What her file manager lists in the Trash (trash-cli), without the dates.
    QStringList trashList() const
    {
        QStringList lines =
            QString::fromUtf8(box.runAsUser({u"trash-list"_s}).out).split(u'\n', Qt::SkipEmptyParts);
        for (QString &line : lines)
            line = line.mid(20);
        return sorted(lines);
    }

    Sandbox box;
    QString before;
};

}  // namespace

TEST_F(MediaCacheTest, PreviewListsWhatTheCleanUpMovesAndRestoreBringsItAllBack)
{
    // Only the old cache files go with an age limit.
    QJsonObject old = ctl({u"mediacache"_s, u"--older-than"_s, u"30"_s});
    EXPECT_EQ(old.value(u"files"_s).toInt(), kOldCacheFiles.size());
    for (const QString &path : kOldCacheFiles)
        EXPECT_FALSE(exists(path)) << qPrintable(path);
    for (const QString &path : kNewCacheFiles + kOthers)
        EXPECT_TRUE(exists(path)) << qPrintable(path);
    const QString oldRun = old.value(u"run"_s).toString();

    const QJsonObject preview = ctl({u"preview"_s, u"-mediacache"_s}).value(u"mediaCache"_s).toObject();
    EXPECT_EQ(clearedIn(preview), sorted(kNewCacheFiles));
    EXPECT_EQ(clearedIn(preview, u"left"_s), sorted(kOthers));
    qint64 bytes = 0;
    for (const QString &path : kNewCacheFiles)
        bytes += QFileInfo(box.hostPath(path)).size();
    EXPECT_EQ(preview.value(u"bytes"_s).toInteger(), bytes);

    const QJsonObject all = ctl({u"mediacache"_s});
    EXPECT_EQ(all.value(u"files"_s).toInt(), kNewCacheFiles.size());
    EXPECT_EQ(all.value(u"bytes"_s).toInteger(), bytes);
    EXPECT_EQ(all.value(u"note"_s).toString(), u"Empty the Trash to free the space."_s);
    for (const QString &path : kNewCacheFiles)
        EXPECT_FALSE(exists(path)) << qPrintable(path);
    for (const QString &path : kOthers)
        EXPECT_TRUE(exists(path)) << qPrintable(path);
    // One Trash item per folder and clean-up, whatever the number of files; each
    // file lies there at its place below the folder.
    EXPECT_EQ(trashList(), sorted({kFiles, kFiles, kDatabase}));
    const QString trash = u"/Users/anna/.local/share/Trash/files/"_s;
    EXPECT_TRUE(exists(trash + u"Media Cache Files.2/Sub/a.mpgindex"_s));
    EXPECT_TRUE(exists(trash + u"Media Cache/cache.mcdb"_s));
    EXPECT_TRUE(exists(trash + u"Media Cache Files.2/Peaks/Deep/r.cfa"_s));
    EXPECT_FALSE(exists(kFiles + u"/Peaks/Deep"_s)) << "moved whole";
    EXPECT_TRUE(exists(kFiles + u"/Peaks"_s));
    const QJsonObject record = ctl({u"report"_s});
    EXPECT_EQ(record.value(u"mode"_s).toString(), u"media cache"_s);
    EXPECT_EQ(record.value(u"mediaCache"_s).toObject().value(u"files"_s).toInt(), kNewCacheFiles.size());

    const ProcessResult text = box.runAsRoot({kCtl, u"restore"_s});
    EXPECT_EQ(text.exitCode, 0) << text.err.constData();
    EXPECT_EQ(text.out, "Restored 11 of 11 media cache files.\n");
    const QJsonObject again = ctl({u"restore"_s, oldRun});
    EXPECT_EQ(again.value(u"mediaCacheRestored"_s).toInt(), kOldCacheFiles.size());
    EXPECT_EQ(disk::fingerprint(box.hostPath(kCommon)), before) << "every file back, as it was";
    EXPECT_EQ(trashList(), QStringList{});
    EXPECT_EQ(QDir(box.hostPath(trash)).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden),
              QStringList{});
    ctl({u"restore"_s, oldRun}, 3);
}

TEST_F(MediaCacheTest, NothingIsClearedWhileTheEditorRuns)
{
    ASSERT_TRUE(box.installStandInApplication(
        kEditor, u"Adobe Premiere Pro"_s,
        "<key>CFBundleIdentifier</key><string>com.adobe.AdobePremierePro</string>", "refuse",
        u"/Users/anna/editor.record"_s));
    const QString script =
        uR"(setpriv --reuid=anna --regid=anna --init-groups -- "%1/Contents/MacOS/Adobe Premiere Pro" &
until grep -q launch /Users/anna/editor.record 2>/dev/null; do sleep 0.01; done
%2 mediacache; echo "status $?"
kill -9 $!)"_s.arg(kEditor, kCtl);
    const ProcessResult result = box.runAsRoot({u"sh"_s, u"-c"_s, script});
    EXPECT_EQ(result.out, "status 1\n");
    EXPECT_TRUE(result.err.contains(
        "mendwellctl: Premiere Pro is running; quit it before its media cache is cleared.\n"))
        << result.err.constData();
    EXPECT_EQ(disk::fingerprint(box.hostPath(kCommon)), before);
}
