#pragma once

// Starts the suite's updater, a separate application: quietly at launch to check
// this program for updates (unless the suite-wide "SUCheckAtStartup" is NO), or as
// an ordinary application from the menu. The newer of the installed updater and
// the one carried in our Resources is used; the carried one runs from a copy in
// the temporary folder.

#include <QString>

class HXSoftwareUpdate {
public:
    // The start-up check, on a thread of its own.
    void startup();
    // The menu command.
    void manualUpdateCheck();

    static QString installedUpdaterPath();
    static QString embeddedUpdaterPath();
    static QString temporaryUpdaterPath();
    // An updater bundle's "CFBundleVersion" as a number; 0 when there is none.
    static long updaterVersion(const QString &bundlePath);

    static QString updaterPath();
    static void launchSoftwareUpdate();
    // Runs the updater's executable with "-checkpath" and our bundle's folder and
    // waits for it.
    static void automaticallyCheckForUpdates();
};
