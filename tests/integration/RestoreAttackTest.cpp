// anna against root's restore: her run records lie in her own folder, so she can
// write any record she likes and wait for root to run `mendwellctl restore` (or
// a repair after it). Each forged record aims at a root-owned decoy outside her
// tree; nothing of the decoy may change, and root's programs must not crash.

#include "system/PropertyList.h"
#include "tests/support/Sandbox.h"

#include <QDir>
#include <QDirIterator>
#include <QFileInfo>

#include <gtest/gtest.h>

#include <cstdio>
#include <sys/stat.h>

namespace {

const QString kCtl = QStringLiteral("/Applications/Mendwell.app/Contents/MacOS/mendwellctl");
const QString kHome = QStringLiteral("/Users/anna");
const QString kTrash = QStringLiteral("/Users/anna/.local/share/Trash");
const QString kPrefs = QStringLiteral("/Users/anna/Library/Preferences");
const QString kRecords = QStringLiteral("/Users/anna/Library/Logs/Lanternfish/Repairs");
const QString kDecoy = QStringLiteral("/Library/Decoy");

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
        ASSERT_TRUE(box.makeFolder(kTrash + QStringLiteral("/files"), true));
        ASSERT_TRUE(box.makeFolder(kTrash + QStringLiteral("/info"), true));
        ASSERT_TRUE(box.makeFolder(QStringLiteral("/Library/Preferences")));
        ASSERT_TRUE(box.makeFolder(QStringLiteral("/Library/Logs/Lanternfish")));
        ASSERT_TRUE(box.writeFile(kDecoy + QStringLiteral("/secret"), "root's secret\n"));
        ASSERT_TRUE(box.writeFile(kDecoy + QStringLiteral("/info.trashinfo"), "root's record\n"));
        ASSERT_TRUE(box.makeFolder(kDecoy + QStringLiteral("/Private")));
        ASSERT_TRUE(box.writeFile(kDecoy + QStringLiteral("/Private/key"), "root's key\n"));
        ::chmod(QFile::encodeName(box.hostPath(kDecoy + QStringLiteral("/secret"))).constData(), 0600);
        ::chmod(QFile::encodeName(box.hostPath(kDecoy + QStringLiteral("/Private"))).constData(), 0700);
        decoy = fingerprint();
    }

    // Names, owners, modes and contents of everything in the decoy.
    QString fingerprint() const
    {
        QStringList lines;
        QDirIterator it(box.hostPath(kDecoy),
                        QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden | QDir::System,
                        QDirIterator::Subdirectories);
        while (it.hasNext()) {
            const QString path = it.next();
            struct stat info {};
            ::lstat(QFile::encodeName(path).constData(), &info);
            QFile file(path);
            const QByteArray contents =
                QFileInfo(path).isFile() && file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
            lines.append(QStringLiteral("%1 %2 %3 %4 %5")
                             .arg(path.mid(box.hostPath(kDecoy).size()))
                             .arg(info.st_mode, 0, 8)
                             .arg(info.st_uid)
                             .arg(info.st_nlink)
                             .arg(QString::fromLatin1(contents.toHex())));
        }
        lines.sort();
        return lines.join(QLatin1Char('\n'));
    }

    // An item of anna's in her Trash, as a repair would have left it.
    Entry trashedItem(const QString &name) const
    {
        const Entry entry{kPrefs + QLatin1Char('/') + name, kTrash + QStringLiteral("/files/") + name,
                          kTrash + QStringLiteral("/info/") + name + QStringLiteral(".trashinfo")};
        EXPECT_TRUE(box.writeFile(entry.trashPath, "anna's " + name.toUtf8(), true));
        EXPECT_TRUE(box.writeFile(entry.infoPath, "[Trash Info]\nPath=" + entry.path.toUtf8() + "\n", true));
        return entry;
    }

    // Writes the newest record, as anna could.
    void plant(const QList<Entry> &entries) const
    {
        QVariantList trashed;
        for (const Entry &entry : entries)
            trashed.append(QVariantMap{{QStringLiteral("path"), entry.path},
                                       {QStringLiteral("trashPath"), entry.trashPath},
                                       {QStringLiteral("infoPath"), entry.infoPath},
                                       {QStringLiteral("step"), QStringLiteral("Trashing preferences...")}});
        const QString identifier = QStringLiteral("29990101-000000-000-%1").arg(++m_planted);
        const QString path = kRecords + QLatin1Char('/') + identifier + QStringLiteral(".plist");
        ASSERT_TRUE(PropertyList::writeXmlFile(box.hostPath(path),
                                               QVariantMap{{QStringLiteral("version"), 1},
                                                           {QStringLiteral("identifier"), identifier},
                                                           {QStringLiteral("trashed"), trashed}}));
        ASSERT_EQ(::chown(QFile::encodeName(box.hostPath(path)).constData(), Sandbox::userId(),
                          Sandbox::userGroupId()),
                  0);
    }

    void link(const QString &target, const QString &path) const
    {
        QFile::remove(box.hostPath(path));
        QDir(box.hostPath(path)).removeRecursively();
        ASSERT_TRUE(QFile::link(target, box.hostPath(path)));
        ASSERT_EQ(::lchown(QFile::encodeName(box.hostPath(path)).constData(), Sandbox::userId(),
                           Sandbox::userGroupId()),
                  0);
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
         {{kPrefs + QStringLiteral("/stolen"), kDecoy + QStringLiteral("/secret"),
           kDecoy + QStringLiteral("/info.trashinfo")}},
         "the record does not name an item of your Trash; nothing was moved"},
        {"root's folder through a climbing trash path",
         {{kPrefs + QStringLiteral("/stolen"),
           kTrash + QStringLiteral("/files/../../../../../../Library/Decoy/Private"),
           kTrash + QStringLiteral("/info/../../../../../../Library/Decoy/Private.trashinfo")}},
         "the record does not name an item of your Trash; nothing was moved"},
        {"root's file as the record to remove",
         {{trashedItem(QStringLiteral("a.plist")).path, kTrash + QStringLiteral("/files/a.plist"),
           kDecoy + QStringLiteral("/info.trashinfo")}},
         "the record does not name an item of your Trash; nothing was moved"},
        {"her file put into root's folder",
         {{kDecoy + QStringLiteral("/planted"), trashedItem(QStringLiteral("b.plist")).trashPath,
           kTrash + QStringLiteral("/info/b.plist.trashinfo")}},
         "it was not trashed from a folder a repair cleans, so it is not put there"},
        {"her file put into root's folder through a climbing path",
         {{kPrefs + QStringLiteral("/../../../../Library/Decoy/planted"),
           trashedItem(QStringLiteral("c.plist")).trashPath,
           kTrash + QStringLiteral("/info/c.plist.trashinfo")}},
         "it was not trashed from a folder a repair cleans, so it is not put there"},
        {"new folders of hers under the machine's Library",
         {{QStringLiteral("/Library/Preferences/Made/d.plist"),
           trashedItem(QStringLiteral("d.plist")).trashPath,
           kTrash + QStringLiteral("/info/d.plist.trashinfo")}},
         "only root may put back what it trashed from the machine's folders"},
    };
    int attempts = 0;
    int escapes = 0;
    for (const Forgery &forgery : forgeries) {
        plant(forgery.entries);
        const ProcessResult result = box.runAsRoot({kCtl, QStringLiteral("restore")});
        ++attempts;
        const bool escaped = fingerprint() != decoy || box.exists(kPrefs + QStringLiteral("/stolen")) ||
                             box.exists(QStringLiteral("/Library/Preferences/Made"));
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
    link(kDecoy, kTrash + QStringLiteral("/files"));
    plant({{kPrefs + QStringLiteral("/secret"), kTrash + QStringLiteral("/files/secret"),
            kTrash + QStringLiteral("/info/secret.trashinfo")}});
    ProcessResult result = box.runAsRoot({kCtl, QStringLiteral("restore")});
    ++attempts;
    escapes += fingerprint() != decoy || box.exists(kPrefs + QStringLiteral("/secret")) ? 1 : 0;
    EXPECT_FALSE(box.exists(kPrefs + QStringLiteral("/secret"))) << result.out.constData();
    link(kDecoy, kTrash + QStringLiteral("/info"));
    QFile::remove(box.hostPath(kTrash + QStringLiteral("/files")));
    ASSERT_TRUE(box.makeFolder(kTrash + QStringLiteral("/files"), true));
    ASSERT_TRUE(box.writeFile(kTrash + QStringLiteral("/files/info.plist"), "anna's", true));
    plant({{kPrefs + QStringLiteral("/info.plist"), kTrash + QStringLiteral("/files/info.plist"),
            kTrash + QStringLiteral("/info/info.plist.trashinfo")}});
    result = box.runAsRoot({kCtl, QStringLiteral("restore")});
    ++attempts;
    escapes += fingerprint() != decoy ? 1 : 0;
    EXPECT_EQ(fingerprint(), decoy) << result.out.constData();

    // A repair afterwards gives her nothing of root's either.
    result = box.runAsRoot({QStringLiteral("Mendwell"), QStringLiteral("-repair"), QStringLiteral("-trash")});
    EXPECT_FALSE(result.crashed);
    EXPECT_EQ(fingerprint(), decoy);
    std::printf("[ figures ] restore: attempts=%d escapes=%d\n", attempts, escapes);
    EXPECT_EQ(escapes, 0);
}

TEST_F(RestoreAttackTest, HerOwnItemsComeBackThroughHerLinks)
{
    // Her Preferences kept elsewhere through her own link: restored there, as hers.
    ASSERT_TRUE(QDir(box.hostPath(kPrefs)).removeRecursively());
    ASSERT_TRUE(box.makeFolder(kHome + QStringLiteral("/Cloud/Preferences"), true));
    link(kHome + QStringLiteral("/Cloud/Preferences"), kPrefs);
    const Entry entry = trashedItem(QStringLiteral("com.Adobe.Premiere Pro.7.0.plist"));
    plant({entry});
    const ProcessResult result = box.runAsRoot({kCtl, QStringLiteral("restore")});
    EXPECT_EQ(result.exitCode, 0) << result.out.constData() << result.err.constData();
    const QString restored = kHome + QStringLiteral("/Cloud/Preferences/com.Adobe.Premiere Pro.7.0.plist");
    EXPECT_EQ(box.readFile(restored), QByteArray("anna's com.Adobe.Premiere Pro.7.0.plist"));
    struct stat info {};
    ASSERT_EQ(::lstat(QFile::encodeName(box.hostPath(restored)).constData(), &info), 0);
    EXPECT_EQ(info.st_uid, Sandbox::userId());
    EXPECT_FALSE(box.exists(entry.infoPath));
    // The record says so, and a second restore has nothing left to do.
    EXPECT_EQ(box.runAsRoot({kCtl, QStringLiteral("restore")}).exitCode, 3);
}
