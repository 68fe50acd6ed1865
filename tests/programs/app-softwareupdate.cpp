// Drives the update launcher as the program does, from inside Mendwell.app:
//   app-softwareupdate path      prints the updater it would run
//   app-softwareupdate check     the quiet check, waited for
//   app-softwareupdate startup   the start-up decision, then two seconds for its thread
//   app-softwareupdate menu      the menu command
//   app-softwareupdate launch    the menu command, not waiting for what it started
//                                (for a caller that itself outlives it)

#include "app/HXSoftwareUpdate.h"
#include "diagnostics/HXLog.h"
#include "tests/programs/StartedPrograms.h"

#include <QString>

#include <chrono>
#include <cstdio>
#include <thread>

int main(int argc, char **argv)
{
    const QString mode = argc == 2 ? QString::fromLocal8Bit(argv[1]) : QString();
    HXLog::createNewLog(QStringLiteral("app-softwareupdate"));
    if (mode == u"path") {
        std::printf("%s\n", qPrintable(HXSoftwareUpdate::updaterPath()));
    } else if (mode == u"check") {
        HXSoftwareUpdate::automaticallyCheckForUpdates();
    } else if (mode == u"startup") {
        HXSoftwareUpdate().startup();
        std::this_thread::sleep_for(std::chrono::seconds(2));
        waitForStartedPrograms();
    } else if (mode == u"menu") {
        HXSoftwareUpdate().manualUpdateCheck();
        waitForStartedPrograms();
    } else if (mode == u"launch") {
        HXSoftwareUpdate().manualUpdateCheck();
    } else {
        std::fprintf(stderr, "usage: %s path|check|startup|menu|launch\n", argv[0]);
        return 2;
    }
    HXLog::finishWriting();
    return 0;
}
