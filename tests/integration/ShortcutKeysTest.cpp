// The shortcut-key panel of the installed bundle, used in the sandbox as anna
// (tests/programs/app-shortcutkeys.cpp), with and without a stand-in for the
// suite's shortcut key manager: what the panel shows, what the shared bindings
// file holds afterwards, and the manager's set-up runs.

#include "system/PropertyList.h"
#include "tests/support/Sandbox.h"
#include "tests/support/TestFiles.h"
#include "tests/support/TestSessionBus.h"

#include <gtest/gtest.h>

namespace {

const QString kDriver = QStringLiteral("/Applications/Mendwell.app/Contents/MacOS/app-shortcutkeys");
const QString kBindings =
    QStringLiteral("/Users/anna/Library/Preferences/com.lanternfish.shortcutkeys.plist");
const QString kManager =
    QStringLiteral("/Library/Application Support/Lanternfish/Shared Resources/HXShortcutKeyManager");
const QString kManagerRecord = QStringLiteral("/Users/anna/manager.record");
const QString kUnableToSetUp = QStringLiteral(
    "Unable to setup shortcut keys - shortcut key manager doesn't exist. Please reinstall this software.");

QVariantMap binding(const QString &bundleId, qint64 keyCode, qint64 modifiers, const QString &commandId)
{
    return {{QStringLiteral("bundleid"), bundleId},
            {QStringLiteral("keycode"), keyCode},
            {QStringLiteral("modifiers"), modifiers},
            {QStringLiteral("commandid"), commandId}};
}

const QString kMendwell = QStringLiteral("com.lanternfish.Mendwell");
// Another application's binding, of a command id that is also ours.
const QVariantMap kOtherApplication = binding(QStringLiteral("com.lanternfish.Other"), 38, 768,
                                              QStringLiteral("com.lanternfish.Mendwell.repair"));
const QVariantMap kTrashPrefsOnCtrlReturn =
    binding(kMendwell, 36, 4096, QStringLiteral("com.lanternfish.Mendwell.trashprefs"));

class ShortcutKeysTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() { bus = new TestSessionBus(); }
    static void TearDownTestSuite()
    {
        delete bus;
        bus = nullptr;
    }

    void SetUp() override
    {
        SKIP_WITHOUT_SANDBOX();
        ASSERT_TRUE(bus->isRunning());
        ASSERT_EQ(box.installInBundle(QStringLiteral("app-shortcutkeys")), kDriver);
        const QVariantMap file{
            {QStringLiteral("watchlist"), QVariantList{kOtherApplication, kTrashPrefsOnCtrlReturn}},
            {QStringLiteral("managerVersion"), QVariantMap{{QStringLiteral("build"), 7}}}};
        ASSERT_TRUE(box.writeFile(kBindings, PropertyList::toXml(file), true));
        // Without a display keys are named on the system's layout: German here.
        ASSERT_TRUE(box.writeFile(QStringLiteral("/Library/TestDefaults/keyboard"), "XKBLAYOUT=\"de\"\n"));
        box.overlay(box.hostPath(QStringLiteral("/Library/TestDefaults")), QStringLiteral("/etc/default"));
    }

    void installManager()
    {
        ASSERT_TRUE(box.writeProgram(kManager, "#!/bin/sh\necho \"$*\" >>" + kManagerRecord.toUtf8() + "\n"));
    }

    ProcessResult run(const QStringList &arguments)
    {
        ProcessResult result =
            box.runAsUser(QStringList{kDriver} + arguments,
                          {QStringLiteral("QT_QPA_PLATFORM=offscreen"), bus->environmentEntry()});
        EXPECT_EQ(result.exitCode, 0) << result.err.constData();
        return result;
    }

    QStringList panel(const QStringList &arguments)
    {
        return QString::fromUtf8(run(arguments).out).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    }

    QVariantMap bindingsFile() const { return PropertyList::readDictionary(box.hostPath(kBindings)); }
    QVariantList watchlist() const { return bindingsFile().value(QStringLiteral("watchlist")).toList(); }

    // What the file holds besides this application's bindings, as it was written.
    void expectOthersUntouched() const
    {
        const QVariantMap file = bindingsFile();
        EXPECT_EQ(PropertyList::toXml(file.value(QStringLiteral("managerVersion"))),
                  PropertyList::toXml(QVariantMap{{QStringLiteral("build"), 7}}));
        EXPECT_EQ(PropertyList::toXml(watchlist().value(0)), PropertyList::toXml(kOtherApplication));
    }

    static inline TestSessionBus *bus = nullptr;
    Sandbox box;
};

TEST_F(ShortcutKeysTest, WithoutTheManagerThePanelWarnsAndAChangeIsStillWritten)
{
    EXPECT_EQ(
        panel({QStringLiteral("show")}),
        (QStringList{"table disabled", "warning shown", "editing no", "reloads 0",
                     "Repair Premiere Pro |  +icon", "Trash Premiere Pro Preferences | Ctrl+Return +icon",
                     "Trash Window Layouts |  +icon", "Show Mendwell |  +icon"}));

    const ProcessResult set =
        run({QStringLiteral("set"), QStringLiteral("com.lanternfish.Mendwell.showwindow"), "65", "768"});
    EXPECT_TRUE(QString::fromUtf8(set.err).contains(kUnableToSetUp)) << set.err.constData();
    EXPECT_TRUE(set.out.contains("reloads 1\n")) << set.out.constData();
    EXPECT_EQ(watchlist().value(2).toMap(),
              binding(kMendwell, 65, 768, QStringLiteral("com.lanternfish.Mendwell.showwindow")));
    expectOthersUntouched();
}

TEST_F(ShortcutKeysTest, KeysPressedInThePanelAreBoundReplacedAtTheEndAndCleared)
{
    installManager();
    // A bare letter is bound with Shift+Cmd (the key that types Y on a US keyboard).
    QStringList shown = panel({QStringLiteral("press"), "0", "29"});
    EXPECT_EQ(shown.mid(0, 5), (QStringList{"table enabled", "warning hidden", "editing no", "reloads 1",
                                            "Repair Premiere Pro | Shift+Cmd+Z +icon"}));
    EXPECT_EQ(watchlist(),
              (QVariantList{kOtherApplication, kTrashPrefsOnCtrlReturn,
                            binding(kMendwell, 29, 768, QStringLiteral("com.lanternfish.Mendwell.repair"))}));

    // A command bound already: its old binding goes, the new one comes last.
    shown = panel({QStringLiteral("press"), "1", "111", QStringLiteral("csam")});
    EXPECT_EQ(shown.value(5),
              QStringLiteral("Trash Premiere Pro Preferences | Ctrl+Shift+Alt+Cmd+Up Arrow +icon"));
    EXPECT_EQ(watchlist(),
              (QVariantList{kOtherApplication,
                            binding(kMendwell, 29, 768, QStringLiteral("com.lanternfish.Mendwell.repair")),
                            binding(kMendwell, 111, 4096 + 512 + 2048 + 256,
                                    QStringLiteral("com.lanternfish.Mendwell.trashprefs"))}));

    shown = panel({QStringLiteral("clear"), "0"});
    EXPECT_EQ(shown.value(3), QStringLiteral("reloads 1"));
    EXPECT_EQ(shown.value(4), QStringLiteral("Repair Premiere Pro |  +icon"));
    EXPECT_EQ(watchlist().size(), 2);
    EXPECT_EQ(watchlist().value(1).toMap().value(QStringLiteral("commandid")),
              QStringLiteral("com.lanternfish.Mendwell.trashprefs"));

    // With no row selected nothing is cleared, but the manager is still set up.
    const QVariantMap before = bindingsFile();
    panel({QStringLiteral("clear"), QStringLiteral("none")});
    EXPECT_EQ(bindingsFile(), before);
    EXPECT_EQ(box.recordLines(kManagerRecord, 4), QStringList(4, QStringLiteral("-setup")));
    expectOthersUntouched();
}

}  // namespace
