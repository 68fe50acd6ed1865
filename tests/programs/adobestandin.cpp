// Stands in for an Adobe background process: copied under the real executable's
// name into the real place, it sleeps until a signal ends it.
// usage: adobestandin [--ignore-term] READYFILE
// READYFILE is created once the signals are set up, so a test starts killtool
// only when this process runs under its final name and disposition.

#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

int main(int argc, char **argv)
{
    const bool ignoreTerm = argc == 3 && std::strcmp(argv[1], "--ignore-term") == 0;
    if (argc != 2 && !ignoreTerm) {
        std::fprintf(stderr, "usage: %s [--ignore-term] READYFILE\n", argv[0]);
        return 2;
    }
    if (ignoreTerm)
        std::signal(SIGTERM, SIG_IGN);
    const int ready = ::open(argv[argc - 1], O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (ready < 0) {
        std::perror(argv[argc - 1]);
        return 1;
    }
    ::close(ready);
    for (;;)
        ::pause();
}
