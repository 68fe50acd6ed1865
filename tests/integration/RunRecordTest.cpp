// The run record and mendwellctl end to end, in the sandbox as root for anna on
// the sample data: the preview says what the repair then does, the record says
// what it did, and restore takes it back.

#include "tests/support/PolkitNamespace.h"
#include "tests/support/Sandbox.h"
#include "tests/support/TestFiles.h"

#include <QDir>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <gtest/gtest.h>

#include <algorithm>

using namespace Qt::Literals::StringLiterals;

namespace {

const QString kCtl = u"/Applications/Mendwell.app/Contents/MacOS/mendwellctl"_s;

QJsonObject jsonOf(const ProcessResult &result)
{
    return QJsonDocument::fromJson(result.out).object();
}

QStringList strings(const QJsonValue &array, const QString &key = {})
{
    QStringList list;
    for (const QJsonValue &value : array.toArray())
        list.append(key.isEmpty() ? value.toString() : value.toObject().value(key).toString());
    return list;
}

QStringList sorted(QStringList list)
{
    std::sort(list.begin(), list.end());
    return list;
}

class RunRecordTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        SKIP_WITHOUT_SANDBOX();
        ASSERT_TRUE(makeSample(box.hostPath(QString())));
    }

    ProcessResult ctl(const QStringList &arguments) const
    {
        return box.runAsRoot(QStringList{kCtl} + arguments);
    }

    ProcessResult repair(const QString &switches) const
    {
        const ProcessResult result = box.runAsRoot({u"Mendwell"_s, u"-repair"_s, switches});
        EXPECT_EQ(result.exitCode, 0) << result.err.constData();
        return result;
    }

    QString trashList() const
    {
        QStringList lines =
            QString::fromUtf8(box.runAsUser({u"trash-list"_s}).out).split(u'\n', Qt::SkipEmptyParts);
        for (QString &line : lines)
            line = line.mid(20);  // without the deletion date
        return sorted(lines).join(u'\n');
    }

    Sandbox box;
};

}  // namespace

TEST_F(RunRecordTest, TheRepairDoesWhatThePreviewSaidAndRestoreTakesItBack)
{
    const ProcessResult preview = ctl({u"preview"_s, u"-trash"_s, u"--json"_s});
    ASSERT_EQ(preview.exitCode, 0) << preview.err.constData();
    const QJsonObject planned = jsonOf(preview);
    const QStringList toTrash = strings(planned.value("trash"));
    ASSERT_EQ(toTrash.size(), 11) << preview.out.constData();
    EXPECT_EQ(sorted(strings(planned.value("permissionFindings"), "path")), kSampleWrong);
    QList<QByteArray> contents;
    for (const QString &path : toTrash)
        contents.append(box.readFile(path));
    const QString trashBefore = trashList();

    repair(u"-trash"_s);
    for (const QString &path : toTrash)
        EXPECT_FALSE(box.exists(path)) << path.toStdString();
    const ProcessResult report = ctl({u"report"_s, u"--json"_s});
    ASSERT_EQ(report.exitCode, 0) << report.err.constData();
    const QJsonObject record = jsonOf(report);
    EXPECT_EQ(record.value("version").toInt(), 1);
    EXPECT_EQ(record.value("mode").toString(), "command line");
    EXPECT_EQ(strings(record.value("switches")), QStringList({"-repair", "-trash"}));
    EXPECT_EQ(strings(record.value("trashed"), "path"), toTrash) << "the same items, in the same order";
    for (const QString &trashPath : strings(record.value("trashed"), "trashPath"))
        EXPECT_TRUE(trashPath.startsWith("/Users/anna/.local/share/Trash/files/") && box.exists(trashPath))
            << trashPath.toStdString();
    EXPECT_TRUE(record.value("errorsFound").toBool());
    // Exactly the changes the preview listed, owner, mode and flag before and after.
    const auto changes = [](const QJsonValue &list) {
        QStringList lines;
        for (const QJsonValue &change : list.toArray())
            lines.append(QString::fromUtf8(QJsonDocument(change.toObject()).toJson(QJsonDocument::Compact)));
        return sorted(lines);
    };
    EXPECT_EQ(changes(record.value("permissionChanges")), changes(planned.value("permissionChanges")));
    EXPECT_EQ(record.value("permissionChanges").toArray().size(), 5);
    EXPECT_TRUE(strings(record.value("steps"), "name").contains("Trashing preferences"));
    // Nothing left for a second repair to correct.
    EXPECT_TRUE(jsonOf(ctl({u"preview"_s, u"--json"_s})).value("permissionFindings").toArray().isEmpty());
    EXPECT_NE(trashList(), trashBefore);

    const ProcessResult restored = ctl({u"restore"_s});
    EXPECT_EQ(restored.exitCode, 0) << restored.out.constData() << restored.err.constData();
    for (qsizetype i = 0; i < toTrash.size(); ++i)
        EXPECT_EQ(box.readFile(toTrash[i]), contents[i]) << toTrash[i].toStdString();
    EXPECT_EQ(trashList(), trashBefore);
    const QString identifier = record.value("identifier").toString();
    const ProcessResult again = ctl({u"restore"_s, identifier});
    EXPECT_EQ(again.exitCode, 3);
    EXPECT_EQ(again.out, "Nothing to restore from repair " + identifier.toUtf8() + ".\n");
    const QJsonObject after = jsonOf(ctl({u"report"_s, identifier, u"--json"_s}));
    EXPECT_EQ(after.value("restores").toArray().size(), 1);
}

TEST_F(RunRecordTest, RestoreKeepsBothSaysWhatIsLostAndRefusesBadArguments)
{
    // Older records than the 50 kept are let go when a run adds one.
    const QString folder = u"/Users/anna/Library/Logs/Lanternfish/Repairs/"_s;
    for (int i = 0; i < 55; ++i)
        ASSERT_TRUE(box.writeFile(folder + u"20000101-000000-%1-1.plist"_s.arg(i, 3, 10, QLatin1Char('0')),
                                  "<plist><dict/></plist>", true));
    repair(u"-trashPrefs"_s);
    const QStringList kept = QDir(box.hostPath(folder)).entryList(QDir::Files);
    EXPECT_EQ(kept.size(), 50);
    EXPECT_FALSE(kept.contains(u"20000101-000000-005-1.plist"_s));
    EXPECT_TRUE(kept.contains(u"20000101-000000-006-1.plist"_s));
    const QJsonObject record = jsonOf(ctl({u"report"_s, u"--json"_s}));
    const QJsonArray trashed = record.value("trashed").toArray();
    ASSERT_GE(trashed.size(), 3);
    // One original path is taken again; another item is gone from the Trash.
    const QString retaken = trashed[0].toObject().value("path").toString();
    const QByteArray original = box.readFile(trashed[0].toObject().value("trashPath").toString());
    ASSERT_TRUE(box.writeFile(retaken, "made again", true));
    const QString lost = trashed[1].toObject().value("path").toString();
    ASSERT_TRUE(QFile::remove(box.hostPath(trashed[1].toObject().value("trashPath").toString())));

    const ProcessResult restored = ctl({u"restore"_s});
    EXPECT_EQ(restored.exitCode, 4) << restored.out.constData();
    const QStringList lines = QString::fromUtf8(restored.out).split(u'\n', Qt::SkipEmptyParts);
    EXPECT_TRUE(lines.contains("Not restored: " + lost + ": no longer in the Trash (was the Trash emptied?)"))
        << restored.out.constData();
    const QString beside =
        lines.filter("Restored " + retaken + " as ").value(0).section(" as ", 1).section(": ", 0, 0);
    EXPECT_FALSE(beside.isEmpty()) << restored.out.constData();
    EXPECT_EQ(box.readFile(retaken), "made again");
    EXPECT_EQ(box.readFile(beside), original);

    // Bad arguments: status 2 and what is wrong.
    const std::pair<QStringList, const char *> bad[] = {
        {{"bogus"}, "unknown command bogus"},
        {{"report", "19990101-000000-000-1"}, "no recorded repair 19990101-000000-000-1"},
        {{"preview", "-silent"}, "preview takes -trash, -trashprefs, -trashworkspace or -mediacache, not -silent"},
        {{"history", "extra"}, "history takes no arguments"},
    };
    for (const auto &[arguments, message] : bad) {
        const ProcessResult result = ctl(arguments);
        EXPECT_EQ(result.exitCode, 2) << message;
        EXPECT_TRUE(result.err.contains(message)) << result.err.constData();
    }
    const ProcessResult help = ctl({u"--help"_s});
    EXPECT_EQ(help.exitCode, 0);
    EXPECT_TRUE(help.out.startsWith("usage: mendwellctl COMMAND"));
}

// As anna, without root: the runner carries out what anna cannot, and hands back
// what it did, so the record holds the machine's preference the runner trashed and
// every change permissiontool made.
TEST(RunRecordAsUserTest, TheRecordHoldsWhatTheAdministratorsHelperDid)
{
    SKIP_WITHOUT_POLKIT();
    PolkitNamespace env;
    ASSERT_TRUE(makeSample(env.hostPath({})));
    const auto json = [](const PolkitNamespace::Result &run) {
        return QJsonDocument::fromJson(QByteArray(run.output).replace("\r\n", "\n")).object();
    };
    const QString macos = u"/Applications/Mendwell.app/Contents/MacOS/"_s;
    const QJsonObject planned = json(env.runAsUser({macos + "mendwellctl", "preview", "-trash", "--json"}, 0,
                                                   PolkitNamespace::Agent::None));
    const QStringList toTrash = strings(planned.value("trash"));
    const QString machinePreference = u"/Library/Preferences/com.adobe.CSXS.4.plist"_s;
    ASSERT_TRUE(toTrash.contains(machinePreference)) << toTrash.join(", ").toStdString();

    const PolkitNamespace::Result repaired =
        env.runAsUser({macos + "Mendwell", "-repair", "-trash", "-hotkey"});
    EXPECT_EQ(repaired.passwordPrompts, 1) << repaired.output.constData();
    const QJsonObject record =
        json(env.runAsUser({macos + "mendwellctl", "report", "--json"}, 0, PolkitNamespace::Agent::None));
    EXPECT_EQ(strings(record.value("trashed"), "path"), toTrash) << repaired.output.constData();
    for (const QJsonValue &item : record.value("trashed").toArray()) {
        const QString trashPath = item.toObject().value("trashPath").toString();
        EXPECT_TRUE(trashPath.startsWith("/Users/anna/.local/share/Trash/files/") && env.exists(trashPath))
            << trashPath.toStdString();
    }
    EXPECT_FALSE(env.exists(machinePreference));
    // The changes the preview listed, made by permissiontool as root and reported back.
    const QStringList changed = sorted(strings(record.value("permissionChanges"), "path"));
    EXPECT_EQ(changed, sorted(strings(planned.value("permissionChanges"), "path")));
    EXPECT_EQ(changed.size(), 5);
    for (const QJsonValue &change : record.value("permissionChanges").toArray()) {
        const QJsonObject fields = change.toObject();
        if (fields.value("path").toString().endsWith("Trace Database.txt")) {
            EXPECT_EQ(fields.value("ownerBefore").toString() + " -> " + fields.value("ownerAfter").toString(),
                      "root -> anna");
        }
    }
}

// As anna, with ~/Documents and her Adobe support folder each a link of her own
// to another folder of hers: the repair (her own process, the administrator's
// permissiontool through the runner) trashes what it lists, corrects behind her
// links, and a second repair finds nothing wrong.
TEST(RunRecordAsUserTest, HerLinkedFoldersAreRepairedAsHerselfToo)
{
    SKIP_WITHOUT_POLKIT();
    PolkitNamespace env;
    ASSERT_TRUE(makeSample(env.hostPath({})));
    const QString home = u"/Users/anna"_s;
    const auto hostPath = [&env](const QString &path) { return env.hostPath(path); };
    ASSERT_TRUE(moveBehindUsersLink(hostPath, home + u"/Documents"_s, home + u"/Cloud/Documents"_s,
                                    Sandbox::userId(), Sandbox::userGroupId()));
    ASSERT_TRUE(moveBehindUsersLink(hostPath, home + u"/Library/Application Support/Adobe"_s,
                                    home + u"/Disk2/Adobe"_s, Sandbox::userId(), Sandbox::userGroupId()));
    const QString mendwell = u"/Applications/Mendwell.app/Contents/MacOS/Mendwell"_s;
    const PolkitNamespace::Result first = env.runAsUser({mendwell, "-repair", "-trash", "-hotkey"});
    EXPECT_TRUE(first.output.contains("Setting correct permissions on ")) << first.output.constData();
    for (const char *item : {"/Users/anna/Cloud/Documents/Adobe/Premiere Pro/7.0/Layouts/Editing.xml",
                             "/Users/anna/Disk2/Adobe/Premiere Pro/7.0/Adobe Premiere Pro Prefs"})
        EXPECT_FALSE(env.exists(QLatin1String(item))) << item;
    const PolkitNamespace::Result second = env.runAsUser({mendwell, "-repair", "-hotkey"});
    EXPECT_TRUE(second.output.contains("No file permission errors found.")) << second.output.constData();
    EXPECT_TRUE(second.output.contains("Processing complete. No errors were found."))
        << second.output.constData();
}
