// killtool's choice of processes, on paths and ids the sandboxed run does not meet.

#include "app/audit/AdobeProcesses.h"

#include <gtest/gtest.h>

TEST(KillToolMatch, NameExactlyAndSomeFolderAboveItAdobes)
{
    const auto matches = [](const char *path) { return isAdobeBackgroundProcess(QString::fromUtf8(path)); };
    EXPECT_TRUE(matches("/Library/Application Support/Adobe/Common/dynamiclinkmanager"));
    // Names that merely contain a listed one or differ from it in case.
    EXPECT_FALSE(matches("/Library/Application Support/Adobe/MyAdobeIPCBroker"));
    EXPECT_FALSE(matches("/Library/Application Support/Adobe/adobeipcbroker"));
    EXPECT_FALSE(matches("/Library/Application Support/Adobe/Core Sync.app"));
    // Folders that only look like Adobe's.
    EXPECT_FALSE(matches("/tmp/foo/AdobeIPCBroker"));
    EXPECT_FALSE(matches("/Applications/AdobeTools/AdobeIPCBroker"));
    EXPECT_FALSE(matches("/Applications/NotAdobe/AdobeIPCBroker"));
    // Paths that are not plain absolute ones.
    EXPECT_FALSE(matches("Adobe/AdobeIPCBroker"));
    EXPECT_FALSE(matches("/Adobe/../usr/bin/AdobeIPCBroker"));
    EXPECT_FALSE(matches("/Library/Adobe/AdobeIPCBroker/"));
}

TEST(KillToolMatch, OnlyTheConsoleUsersOwnProcessesOrProgramsOnlyRootCanPlace)
{
    constexpr uid_t anna = 1001;
    constexpr uid_t other = 1002;
    // Wholly the console user's, wherever its program lies.
    EXPECT_TRUE(mayEndAdobeProcess(anna, anna, false));
    // Another user's, root's, or one whose ids differ (none is sole).
    EXPECT_FALSE(mayEndAdobeProcess(other, anna, false));
    EXPECT_FALSE(mayEndAdobeProcess(0, anna, false));
    EXPECT_FALSE(mayEndAdobeProcess(std::nullopt, anna, false));
    // Nobody at the console, or root there: no process is anyone's to end.
    EXPECT_FALSE(mayEndAdobeProcess(anna, std::nullopt, false));
    EXPECT_FALSE(mayEndAdobeProcess(0, 0, false));
    // A program only root can have placed, whoever runs it.
    for (const std::optional<uid_t> owner : {std::optional<uid_t>(0), std::optional<uid_t>(other),
                                             std::optional<uid_t>(anna), std::optional<uid_t>()})
        for (const std::optional<uid_t> console : {std::optional<uid_t>(anna), std::optional<uid_t>()})
            EXPECT_TRUE(mayEndAdobeProcess(owner, console, true));
}
