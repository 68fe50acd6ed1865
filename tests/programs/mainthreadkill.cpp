// mainthreadkill PID SIGNAL: sends SIGNAL to the main thread of PID. A signal sent
// with kill(1) goes to whichever thread does not block it, so a crash report
// would show some worker's stack instead of the one the test expects.

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <sys/syscall.h>
#include <unistd.h>

int main(int argc, char **argv)
{
    if (argc != 3) {
        std::fprintf(stderr, "usage: mainthreadkill PID SIGNAL\n");
        return 2;
    }
    const long pid = std::strtol(argv[1], nullptr, 10);
    const long signal = std::strtol(argv[2], nullptr, 10);
    // The main thread's id is the process id.
    if (::syscall(SYS_tgkill, pid, pid, signal) != 0) {
        std::perror("tgkill");
        return 1;
    }
    return 0;
}
