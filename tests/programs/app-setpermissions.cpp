// Runs the repair's permission step of the controller, as a repair would.

#include "app/HXAppController.h"

#include <QCoreApplication>

int main(int argc, char **argv)
{
    QCoreApplication application(argc, argv);
    HXAppController::initWithoutGUI()->setFilePermissions();
    return 0;
}
