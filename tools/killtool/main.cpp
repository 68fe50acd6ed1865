// killtool: run as root by a repair, without arguments, to end the Adobe
// background processes that keep Premiere Pro's files in use (the table in
// app/audit/AdobeProcesses.cpp): those wholly the console user's, and those
// whose program only root can have placed (docs/ARCHITECTURE.md says why a
// program's name and place alone are not enough). Each gets SIGTERM and two
// seconds to quit, then SIGKILL and one more second. Processes are pinned first
// (platform/Processes.h), so a pid reused meanwhile is never signalled. Run by
// another user it still tries, and sees and ends only that user's processes.
// Standard output gets one report line per process ended, with the signal it
// needed (app/audit/HXToolReport.h). Exit status 0 when every process it chose
// has ended (or none ran), 1 when one still runs (named on standard error), 2
// for any argument.

#include "app/audit/AdobeProcesses.h"
#include "app/audit/HXToolReport.h"
#include "platform/Processes.h"
#include "system/HXPath.h"

#include <QStringList>

#include <cstdio>

namespace {

using platform::PinnedProcess;

constexpr std::chrono::seconds kGracePeriod{2};
constexpr std::chrono::seconds kAfterKill{1};

// The processes still running that took the signal; one that refused it (not
// ours to signal) is not waited for, it will not end.
std::vector<const PinnedProcess *> signalAll(const std::vector<PinnedProcess> &processes,
                                             int (PinnedProcess::*send)() const)
{
    std::vector<const PinnedProcess *> signalled;
    for (const PinnedProcess &process : processes)
        if (!process.hasEnded() && (process.*send)() == 0)
            signalled.push_back(&process);
    return signalled;
}

}  // namespace

int main(int argc, char **argv)
{
    if (argc != 1) {
        std::fprintf(stderr, "usage: %s\n", argv[0]);
        return 2;
    }
    const std::vector<PinnedProcess> processes = adobeProcessesToEnd();
    std::vector<bool> reported(processes.size(), false);
    const auto report = [&](const char *signal) {
        for (std::size_t i = 0; i < processes.size(); ++i) {
            if (reported[i] || !processes[i].hasEnded())
                continue;
            reported[i] = true;
            const QString path = processes[i].executablePath();
            std::fputs(
                HXToolReport::endedProcessLine(HXPath::lastComponent(path), processes[i].pid(), path, signal)
                    .constData(),
                stdout);
        }
    };
    platform::waitUntilEnded(signalAll(processes, &PinnedProcess::terminate), kGracePeriod);
    report("TERM");
    platform::waitUntilEnded(signalAll(processes, &PinnedProcess::kill), kAfterKill);
    report("KILL");

    QStringList survivors;
    for (const PinnedProcess &process : processes)
        if (!process.hasEnded())
            survivors << QStringLiteral("%1 (pid %2)")
                             .arg(HXPath::lastComponent(process.executablePath()))
                             .arg(process.pid());
    if (survivors.isEmpty())
        return 0;
    std::fprintf(stderr, "killtool: still running: %s\n", qPrintable(survivors.join(QStringLiteral(", "))));
    return 1;
}
