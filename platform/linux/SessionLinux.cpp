#include "platform/Session.h"

#include <QCoreApplication>
#include <QSocketNotifier>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <sys/socket.h>
#include <unistd.h>

namespace platform {

namespace {

// Written by the signal handler, read by the event loop: the only
// async-signal-safe way from a signal into Qt.
int terminationPipe[2] = {-1, -1};

void onTerminationSignal(int)
{
    const int savedErrno = errno;
    const char byte = 1;
    [[maybe_unused]] const ssize_t written = ::write(terminationPipe[1], &byte, 1);
    errno = savedErrno;
}

}  // namespace

bool desktopSessionAvailable()
{
    // A platform chosen explicitly (offscreen, for one) needs no display.
    for (const char *name : {"DISPLAY", "WAYLAND_DISPLAY", "QT_QPA_PLATFORM"}) {
        const char *value = std::getenv(name);
        if (value != nullptr && *value != '\0')
            return true;
    }
    return false;
}

void onTerminationRequest(std::function<void()> handler)
{
    if (terminationPipe[0] >= 0 || ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, terminationPipe) != 0)
        return;
    auto *notifier =
        new QSocketNotifier(terminationPipe[0], QSocketNotifier::Read, QCoreApplication::instance());
    QObject::connect(notifier, &QSocketNotifier::activated, notifier, [handler = std::move(handler)] {
        char byte = 0;
        [[maybe_unused]] const ssize_t read = ::read(terminationPipe[0], &byte, 1);
        handler();
    });
    struct sigaction action {};
    action.sa_handler = onTerminationSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    for (const int number : {SIGTERM, SIGHUP, SIGINT})
        ::sigaction(number, &action, nullptr);
}

}  // namespace platform
