// Sends the repair's quit request to the application named on the command line,
// as the repair does before it waits, with the log "app-quitrequest".
// usage: app-quitrequest NAME

#include "app/HXAppController.h"
#include "diagnostics/HXLog.h"

#include <cstdio>

int main(int argc, char **argv)
{
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s NAME\n", argv[0]);
        return 2;
    }
    HXLog::createNewLog(QStringLiteral("app-quitrequest"));
    HXAppController().sendQuitEventToApp(QString::fromLocal8Bit(argv[1]));
    HXLog::finishWriting();
    return 0;
}
