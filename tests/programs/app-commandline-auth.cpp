// Builds the controller exactly as the command-line mode does, then asks for one
// privileged operation, as the repair will: removing PATH. Prints "remove 1" or
// "remove 0". Whether a password dialog may appear is decided by "-hotkey" on
// this program's own command line, as it is for Mendwell.
//   app-commandline-auth PATH [-hotkey]

#include "app/HXAppController.h"
#include "diagnostics/HXLog.h"
#include "system/HXAuthorization.h"

#include <QString>

#include <cstdio>

int main(int argc, char **argv)
{
    if (argc < 2)
        return 2;
    const std::unique_ptr<HXAppController> controller = HXAppController::initWithoutGUI();
    const bool removed = HXAuthorization::sharedController().authRemoveFile(QString::fromLocal8Bit(argv[1]));
    std::printf("remove %d\n", removed ? 1 : 0);
    HXLog::finishWriting();
    return 0;
}
