// Runs one clean-up step of the repair on its own, with the log "app-cleanupstep":
//   app-cleanupstep quit NAME           the quit request to application NAME
//   app-cleanupstep trashfile PATH      PATH to the Trash through trashtool
//   app-cleanupstep trashcontents DIR   DIR's contents to the Trash through trashtool

#include "app/HXAppController.h"
#include "diagnostics/HXLog.h"

#include <cstdio>
#include <cstring>

int main(int argc, char **argv)
{
    if (argc != 3) {
        std::fprintf(stderr, "usage: %s quit|trashfile|trashcontents ARGUMENT\n", argv[0]);
        return 2;
    }
    HXLog::createNewLog(QStringLiteral("app-cleanupstep"));
    HXAppController controller;
    const QString argument = QString::fromLocal8Bit(argv[2]);
    if (std::strcmp(argv[1], "quit") == 0)
        controller.sendQuitEventToApp(argument);
    else if (std::strcmp(argv[1], "trashfile") == 0)
        controller.authTrashFile(argument);
    else if (std::strcmp(argv[1], "trashcontents") == 0)
        controller.authTrashFolderContents(argument);
    else
        return 2;
    HXLog::finishWriting();
    return 0;
}
