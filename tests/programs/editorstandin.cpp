// Stands in for an application of the desktop (the video editor, the bug
// reporter): installed as the executable of an application bundle, it runs until
// SIGTERM and then quits after a pause, or never, or quits at once. Its behaviour
// comes from Contents/Resources/behaviour beside it ("quit-after N", "refuse" or
// "record-only"), because a relaunched application gets no arguments. Every start
// and every SIGTERM is appended to the file named on the behaviour file's second
// line: "launch uid=U home=H" (with " open=DOCUMENT" for each argument) and "term".
// While it runs, each opening of its Info.plist is recorded as "look": someone
// looking through the running applications, or finding and starting this one.

#include <QByteArray>
#include <QDeadlineTimer>
#include <QFile>
#include <QDir>
#include <QFileInfo>
#include <QList>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/signalfd.h>
#include <unistd.h>

namespace {

void record(const QByteArray &path, const QByteArray &line)
{
    QFile file(QString::fromLocal8Bit(path));
    if (file.open(QIODevice::Append))
        file.write(line + '\n');
}

}  // namespace

int main(int argc, char **argv)
{
    char self[4096] = {};
    if (::readlink("/proc/self/exe", self, sizeof self - 1) <= 0)
        return 1;
    const QString behaviourPath =
        QFileInfo(QString::fromLocal8Bit(self)).dir().filePath(QStringLiteral("../Resources/behaviour"));
    QFile behaviourFile(behaviourPath);
    if (!behaviourFile.open(QIODevice::ReadOnly)) {
        std::fprintf(stderr, "no behaviour file %s\n", qPrintable(behaviourPath));
        return 1;
    }
    const QList<QByteArray> lines = behaviourFile.readAll().split('\n');
    const QByteArray behaviour = lines.value(0);
    const QByteArray recordPath = lines.value(1);

    sigset_t term;
    sigemptyset(&term);
    sigaddset(&term, SIGTERM);
    ::sigprocmask(SIG_BLOCK, &term, nullptr);
    // Opens and closes alternate, so no two opens merge into one event.
    const int watch = ::inotify_init1(IN_CLOEXEC);
    ::inotify_add_watch(
        watch,
        QFile::encodeName(QFileInfo(behaviourPath).dir().filePath(QStringLiteral("../Info.plist")))
            .constData(),
        IN_OPEN | IN_CLOSE_NOWRITE);
    const int signals = ::signalfd(-1, &term, SFD_CLOEXEC);
    QByteArray launch = "launch uid=" + QByteArray::number(::getuid()) + " home=" + qgetenv("HOME");
    for (int i = 1; i < argc; ++i)
        launch += QByteArray(" open=") + argv[i];
    record(recordPath, launch);
    if (behaviour == "record-only")
        return 0;
    QDeadlineTimer quit(QDeadlineTimer::Forever);
    while (!quit.hasExpired()) {
        pollfd ready[2] = {{watch, POLLIN, 0}, {signals, POLLIN, 0}};
        ::poll(ready, 2, int(quit.remainingTime()));
        // Looks first: one taken before a SIGTERM was sent is already queued.
        alignas(inotify_event) char events[4096];
        const ssize_t length = (ready[0].revents & POLLIN) ? ::read(watch, events, sizeof events) : 0;
        for (ssize_t at = 0; at < length; at += ssize_t(sizeof(inotify_event)))  // a file's: no names
            if (reinterpret_cast<const inotify_event *>(events + at)->mask & IN_OPEN)
                record(recordPath, "look");
        signalfd_siginfo received{};
        if (!(ready[1].revents & POLLIN) || ::read(signals, &received, sizeof received) != sizeof received)
            continue;
        record(recordPath, "term");
        if (behaviour.startsWith("quit-after ") && quit.isForever())
            quit.setRemainingTime(1000 * behaviour.mid(11).toInt());
    }
    return 0;
}
