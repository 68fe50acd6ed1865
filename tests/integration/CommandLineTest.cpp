#include "system/PropertyList.h"
#include "tests/support/Sandbox.h"
#include "tests/support/TestFiles.h"

#include <gtest/gtest.h>

namespace {

const QString kUserLogs = QStringLiteral("/Users/anna/Library/Logs/Lanternfish");
const QString kMachineLogs = QStringLiteral("/Library/Logs/Lanternfish");

QStringList textsOf(const QByteArray &log)
{
    QStringList texts;
    for (const QString &line : QString::fromUtf8(log).split(QLatin1Char('\n'), Qt::SkipEmptyParts))
        texts.append(line.section(QStringLiteral(" - "), 1));
    return texts;
}

class CommandLineTest : public ::testing::Test {
protected:
    void SetUp() override { SKIP_WITHOUT_SANDBOX(); }
    Sandbox box;
};

TEST_F(CommandLineTest, HelpPrintsExactlyTheHelpTextAndStops)
{
    // The text as users know it, "-trashPrefs" capital included, and the one
    // newline the line-oriented write adds.
    const QByteArray expected =
        "\nMendwell Help\n\n-help - Displays command listings.\n-repair - Activates command-line mode and "
        "starts "
        "the repair automatically.\n-silent - Suppresses output (ignored if -repair is not set).\n-trash - "
        "Trashes "
        "preferences and window layouts (ignored if -repair is not set).\n-trashPrefs - Trashes preferences "
        "(ignored if -repair is not set).\n-trashworkspace - Trashes window layout (ignored if -repair is "
        "not "
        "set).\n";
    for (const QStringList &arguments : {QStringList{QStringLiteral("-help")},
                                         QStringList{QStringLiteral("-repair"), QStringLiteral("-HELP")},
                                         QStringList{QStringLiteral("-bogus"), QStringLiteral("-Help")}}) {
        const ProcessResult result = box.runAsRoot(QStringList{QStringLiteral("Mendwell")} + arguments);
        EXPECT_EQ(result.exitCode, 0);
        EXPECT_EQ(result.out, expected) << arguments.join(' ').toStdString();
    }
    // -help ran no repair: no log anywhere.
    EXPECT_FALSE(box.exists(QStringLiteral("/Users/anna/Library")));
}

TEST_F(CommandLineTest, UnknownSwitchesAreIgnored)
{
    // -trash alone does not start a repair: it asks for the window, and there is
    // no display to show it on.
    const ProcessResult windowed =
        box.runAsRoot({QStringLiteral("Mendwell"), QStringLiteral("-bogus"), QStringLiteral("-trash")},
                      {QStringLiteral("QT_QPA_PLATFORM=")});
    EXPECT_EQ(windowed.exitCode, 1);
    EXPECT_EQ(windowed.err, "Mendwell needs a desktop session for its window; run it with -repair for the "
                            "command-line repair.\n");
    EXPECT_FALSE(windowed.out.contains("Starting repair...")) << windowed.out.constData();

    const ProcessResult repair = box.runAsRoot(
        {QStringLiteral("Mendwell"), QStringLiteral("--what"), QStringLiteral("-Auto"), QStringLiteral("x")});
    EXPECT_EQ(repair.exitCode, 0);
    EXPECT_TRUE(repair.out.contains("Starting repair...")) << repair.out.constData();
}

// The window as root (sudo Mendwell) is refused before anything starts, display
// or not; the command-line repair and the help stay root's to run.
TEST_F(CommandLineTest, TheWindowIsRefusedToRootWhileTheRepairAndHelpStillRunAsRoot)
{
    const QByteArray refusal =
        "Mendwell does not run its window as root; start it as yourself, or run it with "
        "-repair for the command-line repair.\n";
    for (const QStringList &arguments : {QStringList{}, QStringList{QStringLiteral("-trash")},
                                         QStringList{QStringLiteral("-bogus"), QStringLiteral("-silent")}})
        for (const QString &session :
             {QStringLiteral("QT_QPA_PLATFORM=offscreen"), QStringLiteral("DISPLAY=:4242")}) {
            SCOPED_TRACE((arguments.join(' ') + QLatin1Char(' ') + session).toStdString());
            const ProcessResult window =
                box.runAsRoot(QStringList{QStringLiteral("Mendwell")} + arguments, {session});
            EXPECT_EQ(window.exitCode, 1);
            EXPECT_EQ(window.err, refusal);
            EXPECT_TRUE(window.out.isEmpty()) << window.out.constData();
        }
    // Nothing started: no log, settings or report folder for root or for anna.
    EXPECT_FALSE(box.exists(QStringLiteral("/Users/anna/Library")));
    EXPECT_FALSE(box.exists(QStringLiteral("/root/Library")));

    const QStringList session{QStringLiteral("QT_QPA_PLATFORM=offscreen")};
    const ProcessResult help = box.runAsRoot({QStringLiteral("Mendwell"), QStringLiteral("-help")}, session);
    EXPECT_EQ(help.exitCode, 0);
    EXPECT_TRUE(help.out.startsWith("\nMendwell Help\n")) << help.out.constData();
    const ProcessResult repair =
        box.runAsRoot({QStringLiteral("Mendwell"), QStringLiteral("-repair")}, session);
    EXPECT_EQ(repair.exitCode, 0);
    EXPECT_FALSE(repair.err.contains(refusal)) << repair.err.constData();
    EXPECT_TRUE(repair.out.contains("Starting repair...")) << repair.out.constData();
}

TEST_F(CommandLineTest, RootRepairWithoutMachineLogFolderSaysItCannotCreateTheLog)
{
    const ProcessResult result =
        box.runAsRoot({QStringLiteral("Mendwell"), QStringLiteral("-repair"), QStringLiteral("-silent")});
    EXPECT_EQ(result.exitCode, 0);
    // The user's folder is made (and left to the user), the machine's is not.
    ASSERT_TRUE(box.exists(kUserLogs));
    EXPECT_EQ(disk::info(box.hostPath(kUserLogs)).st_uid, Sandbox::userId());
    EXPECT_FALSE(box.exists(kMachineLogs));
    EXPECT_TRUE(
        result.out.startsWith("Unable to create log file /Library/Logs/Lanternfish/Mendwell.task.1.log - No "
                              "such file or directory\n"))
        << result.out.toStdString();
}

TEST_F(CommandLineTest, RootRepairWritesTaskLogWithHeaderInMachineFolder)
{
    ASSERT_TRUE(box.makeFolder(kMachineLogs));
    const ProcessResult result =
        box.runAsRoot({QStringLiteral("Mendwell"), QStringLiteral("-REPAIR"), QStringLiteral("-Silent")});
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_TRUE(result.out.isEmpty()) << result.out.toStdString();

    const QStringList texts = textsOf(box.readFile(kMachineLogs + QStringLiteral("/Mendwell.task.1.log")));
    ASSERT_GE(texts.size(), 6) << texts.join('\n').toStdString();
    EXPECT_TRUE(texts[0].startsWith(QStringLiteral("Log started: 20")));
    EXPECT_EQ(texts[1], QStringLiteral("Version: 100"));
    EXPECT_EQ(texts[2], QStringLiteral("Path: /Applications/Mendwell.app/Contents/MacOS/Mendwell"));
    EXPECT_TRUE(texts[3].startsWith(QStringLiteral("System: OS X ")));
    EXPECT_EQ(texts[4], QStringLiteral("Running in 64-bit mode"));
    EXPECT_EQ(texts[5], QStringLiteral("Starting repair..."));

    // A second run empties generation 1 in the machine folder; the user's folder is
    // the one that rotates.
    ASSERT_TRUE(box.writeFile(kUserLogs + QStringLiteral("/Mendwell.task.1.log"), "user generation one"));
    box.runAsRoot({QStringLiteral("Mendwell"), QStringLiteral("-repair")});
    EXPECT_EQ(box.readFile(kUserLogs + QStringLiteral("/Mendwell.task.2.log")),
              QByteArray("user generation one"));
    EXPECT_EQ(textsOf(box.readFile(kMachineLogs + QStringLiteral("/Mendwell.task.1.log")))
                  .filter(QStringLiteral("Log started: "))
                  .size(),
              1);
}

TEST_F(CommandLineTest, UserRepairLogsInTheUsersFolder)
{
    const ProcessResult result = box.runAsUser({QStringLiteral("Mendwell"), QStringLiteral("-repair")});
    EXPECT_EQ(result.exitCode, 0);
    const QStringList texts = textsOf(box.readFile(kUserLogs + QStringLiteral("/Mendwell.task.1.log")));
    ASSERT_FALSE(texts.isEmpty());
    EXPECT_EQ(texts.last(), QStringLiteral("Starting repair..."));
}

TEST_F(CommandLineTest, DisableLoggingPreference)
{
    const QString prefs = QStringLiteral("/Users/anna/Library/Preferences/com.lanternfish.global.plist");
    struct Case {
        QVariant value;
        bool disabled;
    };
    const Case cases[] = {
        {QStringLiteral("1"), true},  {true, true},
        {QStringLiteral("0"), false}, {QStringLiteral("yes"), false},
        {qint64(2), false},           {false, false},
        {QVariant(), false},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.value.isValid() ? c.value.toString().toStdString() + " " + c.value.typeName()
                                       : "no key");
        Sandbox fresh;
        QVariantMap settings;
        if (c.value.isValid())
            settings.insert(QStringLiteral("disable-logging"), c.value);
        fresh.makeFolder(QStringLiteral("/Users/anna/Library/Preferences"), true);
        ASSERT_TRUE(PropertyList::writeXmlFile(fresh.hostPath(prefs), settings));
        for (bool asRoot : {false, true}) {
            const QStringList command{QStringLiteral("Mendwell"), QStringLiteral("-repair")};
            const ProcessResult result = asRoot ? fresh.runAsRoot(command) : fresh.runAsUser(command);
            EXPECT_EQ(result.out.startsWith("Logging is disabled\n"), c.disabled) << result.out.toStdString();
            // Logs/DiagnosticReports is made at every start, for crash reports.
            EXPECT_EQ(fresh.exists(kUserLogs), !c.disabled);
        }
    }
}

}  // namespace
