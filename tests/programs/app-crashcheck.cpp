// Asks whether the last run crashed, as a start of Mendwell does, and prints the
// report found or "none".
// usage: app-crashcheck NAME PLIST

#include "diagnostics/HXBugReporter.h"
#include "diagnostics/HXLog.h"

#include <cstdio>

int main(int argc, char **argv)
{
    if (argc != 3) {
        std::fprintf(stderr, "usage: %s NAME PLIST\n", argv[0]);
        return 2;
    }
    HXLog::createNewLog(QStringLiteral("app-crashcheck"));
    const std::optional<QString> report =
        HXBugReporter::checkForCrashes(QString::fromLocal8Bit(argv[1]), QString::fromLocal8Bit(argv[2]));
    std::printf("%s\n", report ? qPrintable(*report) : "none");
    HXLog::finishWriting();
    return 0;
}
