#pragma once

// Starts the suite's updater, a separate application: quietly at launch to check
// this program for updates (unless the suite-wide "SUCheckAtStartup" is NO), or as
// an ordinary application from the menu. The newer of the installed updater and
// the one carried in our Resources is used; the carried one runs from a copy in
// a private folder of the run (HXPrivateFolder), under its own name there.

#include <QString>

class HXSoftwareUpdate {
public:
    // The start-up check, on a thread of its own.
    void startup();
    // The menu command.
    void manualUpdateCheck();

    static QString installedUpdaterPath();
    static QString embeddedUpdaterPath();
    // An updater bundle's "CFBundleVersion" by its leading integer ("15.1" is 15);
    // 0 when there is none.
    static long updaterVersion(const QString &bundlePath);

    // The updater the menu starts; a carried copy stays until the next call.
    static QString updaterPath();
    static void launchSoftwareUpdate();
    // Runs the updater's executable with "-checkpath" and our bundle's folder and
    // waits for it.
    static void automaticallyCheckForUpdates();
};
