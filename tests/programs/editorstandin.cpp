// Stands in for an application of the desktop (the video editor, the bug
// reporter): installed as the executable of an application bundle, it runs until
// SIGTERM and then quits after a pause, or never, or quits at once. Its behaviour
// comes from Contents/Resources/behaviour beside it ("quit-after N", "refuse" or
// "record-only"), because a relaunched application gets no arguments. Every start
// and every SIGTERM is appended to the file named on the behaviour file's second
// line: "launch uid=U home=H" (with " open=DOCUMENT" for each argument) and "term".
// With "watch" it only runs, and records "look" whenever its Info.plist is opened:
// each time someone looks through the running applications, and once when it
// starts watching.

#include <QByteArray>
#include <QFile>
#include <QDir>
#include <QFileInfo>
#include <QList>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <sys/inotify.h>
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

    if (behaviour == "watch") {
        // Opens and closes alternate, so no two opens merge into one event.
        const QByteArray info =
            QFile::encodeName(QFileInfo(behaviourPath).dir().filePath(QStringLiteral("../Info.plist")));
        const int watch = ::inotify_init1(IN_CLOEXEC);
        ::inotify_add_watch(watch, info.constData(), IN_OPEN | IN_CLOSE_NOWRITE);
        ::close(::open(info.constData(), O_RDONLY | O_CLOEXEC));
        inotify_event event{};  // a file's own events carry no name
        while (::read(watch, &event, sizeof event) == sizeof event)
            if (event.mask & IN_OPEN)
                record(recordPath, "look");
        return 1;
    }

    sigset_t term;
    sigemptyset(&term);
    sigaddset(&term, SIGTERM);
    ::sigprocmask(SIG_BLOCK, &term, nullptr);
    QByteArray launch = "launch uid=" + QByteArray::number(::getuid()) + " home=" + qgetenv("HOME");
    for (int i = 1; i < argc; ++i)
        launch += QByteArray(" open=") + argv[i];
    record(recordPath, launch);
    if (behaviour == "record-only")
        return 0;
    for (;;) {
        int received = 0;
        ::sigwait(&term, &received);
        record(recordPath, "term");
        if (behaviour.startsWith("quit-after ")) {
            ::sleep(behaviour.mid(11).toUInt());
            return 0;
        }
    }
}
