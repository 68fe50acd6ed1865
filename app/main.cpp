#include "app/HXAppController.h"
#include "app/HXCommandLine.h"
#include "diagnostics/HXLog.h"
#include "platform/Session.h"

#include <QApplication>
#include <QString>
#include <QStringList>

#include <cstdio>
#include <memory>
#include <unistd.h>

namespace {

int runWindowedApplication(int argc, char **argv)
{
    if (!platform::desktopSessionAvailable()) {
        std::fputs(
            "Mendwell needs a desktop session for its window; run it with -repair for the command-line "
            "repair.\n",
            stderr);
        return 1;
    }
    // Its menu commands work in the user's own tree by path (logs gathered, the
    // settings and statistics written); as root they would follow her links and
    // leave root's files behind. A repair asks for the rights it needs instead.
    if (::getuid() == 0 || ::geteuid() == 0) {
        std::fputs("Mendwell does not run its window as root; start it as yourself, or run it with -repair "
                   "for the command-line repair.\n",
                   stderr);
        return 1;
    }
    QApplication application(argc, argv);
    QApplication::setApplicationName(QStringLiteral("Mendwell"));
    // The main window's closing ends the program, not the last window's.
    QApplication::setQuitOnLastWindowClosed(false);
    platform::onTerminationRequest([] { QCoreApplication::quit(); });
    const int status = HXAppController::applicationMain();
    HXLog::finishWriting();
    return status;
}

}  // namespace

int main(int argc, char **argv)
{
    QStringList arguments;
    for (int i = 0; i < argc; ++i)
        arguments.append(QString::fromUtf8(argv[i]));
    const HXCommandLine options = HXCommandLine::parse(arguments);
    if (options.help) {
        std::puts(HXCommandLine::helpText);
        return 0;
    }
    if (!options.commandLineMode)
        return runWindowedApplication(argc, argv);

    // The caller starts us privileged (sudo, pkexec or a root launcher); without
    // that the call fails and the repair asks for administrator rights instead.
    [[maybe_unused]] const int elevated = setuid(0);
    {
        std::unique_ptr<HXAppController> controller = HXAppController::initWithoutGUI();
        controller->startRepair(options.trashPreferences, options.trashWorkspaces, options.silent);
    }
    // No will-terminate notice comes without an event loop, so wait for the writer
    // here: the task log is how callers learn what happened.
    HXLog::finishWriting();
    // Callers read the verdict from the log and the closing notification, never
    // from the exit status.
    return 0;
}
