// Drives the update launcher as the program does, from inside Mendwell.app:
//   app-softwareupdate path      prints the updater it would run
//   app-softwareupdate check     the quiet check, waited for
//   app-softwareupdate startup   the start-up decision, then two seconds for its thread
//   app-softwareupdate menu      the menu command
// It runs as the sandbox's only program, and the sandbox ends everything when it
// ends, so it outlives the updaters it started.

#include "app/HXSoftwareUpdate.h"
#include "diagnostics/HXLog.h"

#include <QDir>
#include <QString>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <thread>

#include <unistd.h>

namespace {

// Waits (a bounded while) until no process but the sandbox's first and this one is left.
void waitForStartedPrograms()
{
    const QString self = QString::number(::getpid());
    for (int round = 0; round < 400; ++round) {
        const QStringList entries = QDir(QStringLiteral("/proc")).entryList(QDir::Dirs);
        const bool othersLeft = std::any_of(entries.begin(), entries.end(), [&](const QString &entry) {
            bool isProcess = false;
            entry.toInt(&isProcess);
            return isProcess && entry != u"1" && entry != self;
        });
        if (!othersLeft)
            return;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
}

}  // namespace

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
    } else {
        std::fprintf(stderr, "usage: %s path|check|startup|menu\n", argv[0]);
        return 2;
    }
    HXLog::finishWriting();
    return 0;
}
