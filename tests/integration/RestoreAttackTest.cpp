// anna against root's restore: her run records lie in her own folder, so she can
// write any record she likes and wait for root to run `mendwellctl restore` (or
// a repair after it). Each forged record aims at a root-owned decoy outside her
// tree; nothing of the decoy may change, and root's programs must not crash.

#include "system/PropertyList.h"
#include "tests/support/Sandbox.h"
#include "tests/support/TestFiles.h"

#include <QDir>
#include <QFile>
#include <QUrl>

#include <gtest/gtest.h>

#include <cstdio>

using namespace Qt::Literals::StringLiterals;

namespace {

const QString kCtl = u"/Applications/Mendwell.app/Contents/MacOS/mendwellctl"_s;
const QString kHome = u"/Users/anna"_s;
const QString kTrash = u"/Users/anna/.local/share/Trash"_s;
const QString kPrefs = u"/Users/anna/Library/Preferences"_s;
const QString kRecords = u"/Users/anna/Library/Logs/Lanternfish/Repairs"_s;
const QString kDecoy = u"/Library/Decoy"_s;
const QString kCache = u"/Users/anna/Library/Application Support/Adobe/Common/Media Cache Files"_s;

struct Entry {
    QString path;
    QString trashPath;
    QString infoPath;
};

struct Forgery {
    const char *name;
    QList<Entry> entries;
    const char *said;  // what mendwellctl says of the item
};

class RestoreAttackTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        SKIP_WITHOUT_SANDBOX();
        ASSERT_TRUE(box.makeFolder(kRecords, true));
        ASSERT_TRUE(box.makeFolder(kPrefs, true));
        ASSERT_TRUE(box.makeFolder(kTrash + u"/files"_s, true));
        ASSERT_TRUE(box.makeFolder(kTrash + u"/info"_s, true));
        ASSERT_TRUE(box.makeFolder(u"/Library/Preferences"_s));
        ASSERT_TRUE(box.makeFolder(u"/Library/Logs/Lanternfish"_s));
        ASSERT_TRUE(box.writeFile(kDecoy + u"/secret"_s, "root's secret\n", false, 0600));
        ASSERT_TRUE(box.writeFile(kDecoy + u"/info.trashinfo"_s, "root's record\n"));
        ASSERT_TRUE(box.writeFile(kDecoy + u"/Private/key"_s, "root's key\n"));
        ASSERT_TRUE(disk::chmod(box.hostPath(kDecoy + u"/Private"_s), 0700));
        ASSERT_TRUE(box.makeFolder(kDecoy + u"/Empty/Inner"_s));
        decoy = fingerprint();
    }

    QString fingerprint() const { return disk::fingerprint(box.hostPath(kDecoy)); }

    // An item of anna's in her Trash, as a repair would have left it.
    Entry trashedItem(const QString &name) const
    {
        const Entry entry{kPrefs + u'/' + name, kTrash + u"/files/"_s + name,
                          kTrash + u"/info/"_s + name + u".trashinfo"_s};
        EXPECT_TRUE(box.writeFile(entry.trashPath, "anna's " + name.toUtf8(), true));
        EXPECT_TRUE(box.writeFile(entry.infoPath, "[Trash Info]\nPath=" + entry.path.toUtf8() + "\n", true));
        return entry;
    }

    // Writes the newest record, as anna could; CACHELINES are a media cache
    // clean-up's lines, relative to its Trash folder CACHETRASH or "TRASHEDPATH
    // ORIGINALPATH", for the cache folder CACHEFOLDER.
    void plant(const QList<Entry> &entries, const QByteArray &cacheLines = {}, const QString &cacheTrash = {},
               const QString &cacheFolder = kCache) const
    {
        QVariantList trashed;
        for (const Entry &entry : entries)
            trashed.append(QVariantMap{{u"path"_s, entry.path},
                                       {u"trashPath"_s, entry.trashPath},
                                       {u"infoPath"_s, entry.infoPath},
                                       {u"step"_s, u"Trashing preferences..."_s}});
        const QString identifier = u"29990101-000000-000-%1"_s.arg(++m_planted);
        const QString path = kRecords + u'/' + identifier + u".plist"_s;
        ASSERT_TRUE(PropertyList::writeXmlFile(
            box.hostPath(path),
            QVariantMap{{u"version"_s, 1},
                        {u"identifier"_s, identifier},
                        {u"trashed"_s, trashed},
                        {u"mediaCache"_s, QVariantMap{{u"folders"_s, QVariantList{QVariantMap{
                                                                         {u"path"_s, cacheFolder},
                                                                         {u"trashFolder"_s, cacheTrash},
                                                                         {u"trashed"_s, cacheLines}}}}}}}));
        ASSERT_TRUE(disk::chown(box.hostPath(path), Sandbox::userId(), Sandbox::userGroupId()));
    }

    void link(const QString &target, const QString &path) const
    {
        QFile::remove(box.hostPath(path));
        QDir(box.hostPath(path)).removeRecursively();
        ASSERT_TRUE(QFile::link(target, box.hostPath(path)));
        ASSERT_TRUE(disk::chown(box.hostPath(path), Sandbox::userId(), Sandbox::userGroupId()));
    }

    Sandbox box;
    QString decoy;
    mutable int m_planted = 0;
};

}  // namespace

TEST_F(RestoreAttackTest, AForgedRecordMakesRootDoNothingSheCouldNotDoHerself)
{
    const QList<Forgery> forgeries{
        {"root's file as the trashed item",
         {{kPrefs + u"/stolen"_s, kDecoy + u"/secret"_s, kDecoy + u"/info.trashinfo"_s}},
         "the record does not name an item of your Trash; nothing was moved"},
        {"root's folder through a climbing trash path",
         {{kPrefs + u"/stolen"_s, kTrash + u"/files/../../../../../../Library/Decoy/Private"_s,
           kTrash + u"/info/../../../../../../Library/Decoy/Private.trashinfo"_s}},
         "the record does not name an item of your Trash; nothing was moved"},
        {"root's file as the record to remove",
         {{trashedItem(u"a.plist"_s).path, kTrash + u"/files/a.plist"_s, kDecoy + u"/info.trashinfo"_s}},
         "the record does not name an item of your Trash; nothing was moved"},
        {"her file put into root's folder",
         {{kDecoy + u"/planted"_s, trashedItem(u"b.plist"_s).trashPath,
           kTrash + u"/info/b.plist.trashinfo"_s}},
         "it was not trashed from a folder a repair cleans, so it is not put there"},
        {"her file put into root's folder through a climbing path",
         {{kPrefs + u"/../../../../Library/Decoy/planted"_s, trashedItem(u"c.plist"_s).trashPath,
           kTrash + u"/info/c.plist.trashinfo"_s}},
         "it was not trashed from a folder a repair cleans, so it is not put there"},
        {"new folders of hers under the machine's Library",
         {{u"/Library/Preferences/Made/d.plist"_s, trashedItem(u"d.plist"_s).trashPath,
           kTrash + u"/info/d.plist.trashinfo"_s}},
         "only root may put back what it trashed from the machine's folders"},
    };
    int attempts = 0;
    int escapes = 0;
    for (const Forgery &forgery : forgeries) {
        plant(forgery.entries);
        const ProcessResult result = box.runAsRoot({kCtl, u"restore"_s});
        ++attempts;
        const bool escaped = fingerprint() != decoy || box.exists(kPrefs + u"/stolen"_s) ||
                             box.exists(u"/Library/Preferences/Made"_s);
        escapes += escaped ? 1 : 0;
        EXPECT_FALSE(escaped) << forgery.name << "\n" << result.out.constData() << result.err.constData();
        EXPECT_FALSE(result.crashed) << forgery.name;
        EXPECT_EQ(result.exitCode, 1) << forgery.name << "\n"
                                      << result.out.constData() << result.err.constData();
        EXPECT_EQ(result.out,
                  "Not restored: " + forgery.entries.first().path.toUtf8() + ": " + forgery.said + "\n")
            << forgery.name;
    }

    // Her Trash's folders swapped for links to root's decoy: nothing comes out of
    // it, and nothing goes in.
    link(kDecoy, kTrash + u"/files"_s);
    plant({{kPrefs + u"/secret"_s, kTrash + u"/files/secret"_s, kTrash + u"/info/secret.trashinfo"_s}});
    ProcessResult result = box.runAsRoot({kCtl, u"restore"_s});
    ++attempts;
    escapes += fingerprint() != decoy || box.exists(kPrefs + u"/secret"_s) ? 1 : 0;
    EXPECT_FALSE(box.exists(kPrefs + u"/secret"_s)) << result.out.constData();
    link(kDecoy, kTrash + u"/info"_s);
    QFile::remove(box.hostPath(kTrash + u"/files"_s));
    ASSERT_TRUE(box.makeFolder(kTrash + u"/files"_s, true));
    ASSERT_TRUE(box.writeFile(kTrash + u"/files/info.plist"_s, "anna's", true));
    plant({{kPrefs + u"/info.plist"_s, kTrash + u"/files/info.plist"_s,
            kTrash + u"/info/info.plist.trashinfo"_s}});
    result = box.runAsRoot({kCtl, u"restore"_s});
    ++attempts;
    escapes += fingerprint() != decoy ? 1 : 0;
    EXPECT_EQ(fingerprint(), decoy) << result.out.constData();

    // Media cache lines: files of a clean-up's collection in her Trash, which a
    // restore puts back one by one and whose emptied folders it then removes.
    QFile::remove(box.hostPath(kTrash + u"/info"_s));
    ASSERT_TRUE(box.makeFolder(kTrash + u"/info"_s, true));
    link(kDecoy + u"/Empty"_s, kTrash + u"/files/Media Cache Files"_s);
    ASSERT_TRUE(box.writeFile(kTrash + u"/files/Cache.2/clip.cfa"_s, "anna's clip", true));
    const QString collection = kTrash + u"/files/Cache.2"_s;
    const auto line = [](const QString &trashPath, const QString &path) {
        return QUrl::toPercentEncoding(trashPath, "/") + ' ' + QUrl::toPercentEncoding(path, "/") + '\n';
    };
    const struct {
        QByteArray line;
        QString trashFolder;
        QString folder;
    } cacheForgeries[]{
        {line(kDecoy + u"/secret"_s, kCache + u"/secret"_s), {}, kCache},
        {line(kTrash + u"/files/../../../../../Library/Decoy/Private/key"_s, kCache + u"/key"_s), {}, kCache},
        {line(kTrash + u"/files/Media Cache Files/Inner"_s, kCache + u"/Inner"_s), {}, kCache},
        {line(collection + u"/clip.cfa"_s, kDecoy + u"/Private/clip.cfa"_s), {}, kCache},
        {line(collection + u"/clip.cfa"_s, kCache + u"/../../../../../../../Library/Decoy/clip.cfa"_s),
         {},
         kCache},
        {"secret\n", kDecoy, kCache},
        {"../../../../../../../Library/Decoy/secret\n", collection, kCache},
        {"clip.cfa\n", collection, kDecoy + u"/Private"_s},
        {"clip.cfa\n", collection, kCache + u"/../../../../../../../Library/Decoy"_s},
    };
    for (const auto &forgery : cacheForgeries) {
        plant({}, forgery.line, forgery.trashFolder, forgery.folder);
        result = box.runAsRoot({kCtl, u"restore"_s});
        ++attempts;
        const bool escaped = fingerprint() != decoy || box.exists(kCache + u"/secret"_s) ||
                             box.exists(kCache + u"/key"_s) || box.exists(kCache + u"/Inner"_s);
        escapes += escaped ? 1 : 0;
        EXPECT_FALSE(escaped) << forgery.line.constData() << "\n" << result.out.constData();
        EXPECT_FALSE(result.crashed);
        EXPECT_EQ(result.out, "Restored 0 of 1 media cache files; the record lists those not restored.\n")
            << forgery.line.constData() << "\n"
            << result.err.constData();
    }
    EXPECT_EQ(box.readFile(kTrash + u"/files/Cache.2/clip.cfa"_s), QByteArray("anna's clip"));

    // A repair afterwards gives her nothing of root's either.
    result = box.runAsRoot({u"Mendwell"_s, u"-repair"_s, u"-trash"_s});
    EXPECT_FALSE(result.crashed);
    EXPECT_EQ(fingerprint(), decoy);
    std::printf("[ figures ] restore: attempts=%d escapes=%d\n", attempts, escapes);
    EXPECT_EQ(escapes, 0);
}

TEST_F(RestoreAttackTest, HerOwnItemsComeBackThroughHerLinks)
{
    // Her Preferences kept elsewhere through her own link: restored there, as hers.
    ASSERT_TRUE(QDir(box.hostPath(kPrefs)).removeRecursively());
    ASSERT_TRUE(box.makeFolder(kHome + u"/Cloud/Preferences"_s, true));
    link(kHome + u"/Cloud/Preferences"_s, kPrefs);
    const Entry entry = trashedItem(u"com.Adobe.Premiere Pro.7.0.plist"_s);
    plant({entry});
    const ProcessResult result = box.runAsRoot({kCtl, u"restore"_s});
    EXPECT_EQ(result.exitCode, 0) << result.out.constData() << result.err.constData();
    const QString restored = kHome + u"/Cloud/Preferences/com.Adobe.Premiere Pro.7.0.plist"_s;
    EXPECT_EQ(box.readFile(restored), QByteArray("anna's com.Adobe.Premiere Pro.7.0.plist"));
    EXPECT_EQ(disk::info(box.hostPath(restored)).st_uid, Sandbox::userId());
    EXPECT_FALSE(box.exists(entry.infoPath));
    // The record says so, and a second restore has nothing left to do.
    EXPECT_EQ(box.runAsRoot({kCtl, u"restore"_s}).exitCode, 3);
}
