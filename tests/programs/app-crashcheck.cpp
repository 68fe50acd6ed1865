// Asks whether the last run crashed, as a start of Mendwell does, and prints the
// report found or "none"; or crashes the way a run of Mendwell may, with its crash
// reports going to the console user's Logs/DiagnosticReports.
// usage: app-crashcheck check NAME PLIST
//        app-crashcheck throw log-first|writer-first REASON
//                       an exception escapes main; the log and the crash writer
//                       were started in the order given
//        app-crashcheck overflow
//                       a queue's thread overflows its stack

#include "diagnostics/HXBugReporter.h"
#include "diagnostics/HXLog.h"
#include "platform/Accounts.h"
#include "platform/CrashReports.h"
#include "system/HXLocalPaths.h"
#include "system/HXSerialQueue.h"

#include <cstdio>
#include <cstring>
#include <stdexcept>

namespace {

void writeCrashReports()
{
    const std::optional<platform::Account> user = platform::accountNamed(HXLocalPaths::username());
    platform::installCrashReportWriter(
        HXLocalPaths::logDirectory(true) + QStringLiteral("/DiagnosticReports"), QStringLiteral("Mendwell"),
        user ? std::optional<uid_t>(user->uid) : std::nullopt);
}

// Deep enough for any thread's stack; the addition after the call keeps the
// compiler from turning the recursion into a loop.
int descend(int depth)
{
    volatile char frame[1024];
    frame[0] = static_cast<char>(depth);
    return depth > 100000000 ? 0 : descend(depth + 1) + frame[0];
}

}  // namespace

int main(int argc, char **argv)
{
    const char *command = argc > 1 ? argv[1] : "";
    if (std::strcmp(command, "check") == 0 && argc == 4) {
        HXLog::createNewLog(QStringLiteral("app-crashcheck"));
        const std::optional<QString> report =
            HXBugReporter::checkForCrashes(QString::fromLocal8Bit(argv[2]), QString::fromLocal8Bit(argv[3]));
        std::printf("%s\n", report ? qPrintable(*report) : "none");
    } else if (std::strcmp(command, "throw") == 0 && argc == 4) {
        const bool logFirst = std::strcmp(argv[2], "log-first") == 0;
        if (logFirst)
            HXLog::createNewLog(QStringLiteral("app-crashcheck"));
        writeCrashReports();
        if (!logFirst)
            HXLog::createNewLog(QStringLiteral("app-crashcheck"));
        throw std::runtime_error(argv[3]);
    } else if (std::strcmp(command, "overflow") == 0) {
        writeCrashReports();
        HXSerialQueue queue;
        queue.addOperation([] { std::printf("%d\n", descend(0)); });
        queue.waitUntilAllOperationsAreFinished();
    } else {
        std::fprintf(stderr, "usage: %s check NAME PLIST | throw ORDER REASON | overflow\n", argv[0]);
        return 2;
    }
    HXLog::finishWriting();
    return 0;
}
