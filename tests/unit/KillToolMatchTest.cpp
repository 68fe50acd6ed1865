// killtool's choice of processes, on paths the sandboxed run does not meet.

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
