#include "app/HXCommandLine.h"
#include "diagnostics/HXLog.h"
#include "system/HXFormat.h"

#include <gtest/gtest.h>

TEST(Format, ObjectAndPrintfConversions)
{
    EXPECT_EQ(HXFormat(u"%@ - %@", QStringLiteral("a"), 5), QStringLiteral("a - 5"));
    EXPECT_EQ(HXFormat(u"System: OS X %@, %li CPU(s), %0.2f GB RAM", QStringLiteral("6.1.0"), 2, 23.456),
              QStringLiteral("System: OS X 6.1.0, 2 CPU(s), 23.46 GB RAM"));
    EXPECT_EQ(HXFormat(u"/%@.%li.log", QStringLiteral("Mendwell"), 3L), QStringLiteral("/Mendwell.3.log"));
    EXPECT_EQ(HXFormat(u"%s|%5d|%-4s|%x|%c", "ü", 42, "ab", 255u, 65), QStringLiteral("ü|   42|ab  |ff|A"));
    EXPECT_EQ(HXFormat(u"100%% done"), QStringLiteral("100% done"));
    EXPECT_EQ(HXFormat(u"%@", static_cast<const char *>(nullptr)), QStringLiteral("(null)"));
}

TEST(Format, MissingArgumentsAndOddFormats)
{
    // A format handed on without its arguments loses the conversions, nothing more.
    EXPECT_EQ(HXFormat(u"a %@ b %d c"), QStringLiteral("a  b  c"));
    EXPECT_EQ(HXFormat(u"ends with %"), QStringLiteral("ends with "));
    EXPECT_EQ(HXFormat(u"%y stays"), QStringLiteral("%y stays"));
    EXPECT_EQ(HXFormat(u"%*d|%.2s", 4, 7, "abc"), QStringLiteral("   7|ab"));
    EXPECT_EQ(HXFormat(u"%d", QStringLiteral("text")), QStringLiteral("text"));
}

TEST(ConsoleCopy, DoublesPercentAndDropsObjectsAndNul)
{
    EXPECT_EQ(HXLog::consoleCopy(QStringLiteral("50% of %@ done")), QStringLiteral("50%% of  done"));
    EXPECT_EQ(HXLog::consoleCopy(QStringLiteral("a") + QChar(u'\0') + QStringLiteral("b")),
              QStringLiteral("ab"));
    EXPECT_EQ(HXLog::consoleCopy(QStringLiteral("%%")), QStringLiteral("%%%%"));
}

namespace {

HXCommandLine parse(std::initializer_list<const char *> arguments)
{
    QStringList list{QStringLiteral("/Applications/Mendwell.app/Contents/MacOS/Mendwell")};
    for (const char *argument : arguments)
        list.append(QString::fromUtf8(argument));
    return HXCommandLine::parse(list);
}

}  // namespace

TEST(CommandLine, SwitchesAreCaseBlindAndOnlyTurnFlagsOn)
{
    const HXCommandLine silent = parse({"-REPAIR", "-Silent"});
    EXPECT_TRUE(silent.commandLineMode);
    EXPECT_TRUE(silent.silent);
    EXPECT_FALSE(silent.trashPreferences || silent.trashWorkspaces);

    const HXCommandLine both = parse({"-trashPrefs", "-TRASHWORKSPACE", "-auto"});
    EXPECT_TRUE(both.commandLineMode && both.trashPreferences && both.trashWorkspaces);
    const HXCommandLine trash = parse({"-trash", "-repair", "-bogus", "repair", "--repair"});
    EXPECT_TRUE(trash.commandLineMode && trash.trashPreferences && trash.trashWorkspaces);
    EXPECT_FALSE(trash.silent);

    const HXCommandLine windowed = parse({"-trash"});
    EXPECT_FALSE(windowed.commandLineMode);
}

TEST(CommandLine, HelpWinsWhereverItStands)
{
    const HXCommandLine help = parse({"-repair", "-HeLp", "-silent"});
    EXPECT_TRUE(help.help);
    EXPECT_FALSE(help.silent);  // reading stops at -help
    EXPECT_TRUE(parse({"-help"}).help);
    EXPECT_FALSE(parse({"-helpme"}).help);
    const QString text = QString::fromUtf8(HXCommandLine::helpText);
    EXPECT_TRUE(text.contains(QStringLiteral("-trashPrefs - Trashes preferences")));
    EXPECT_FALSE(text.contains(QStringLiteral("-auto")));
}
