#include "tests/support/PolkitNamespace.h"
#include "tests/support/TestFiles.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QStandardPaths>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

namespace {

const QString kScript = QStringLiteral(MENDWELL_SOURCE_DIR "/tests/support/polkit-namespace.sh");
const QString kPolicy = QStringLiteral(MENDWELL_SOURCE_DIR "/resources/com.lanternfish.mendwell.policy");

bool chownTo(const QString &path, const char *user)
{
    const passwd *entry = getpwnam(user);
    return entry && ::lchown(QFile::encodeName(path).constData(), entry->pw_uid, entry->pw_gid) == 0;
}

// Registers pkttyagent for this very process, waits until it is registered, then
// becomes the command (same pid, so the agent is the command's).
const char *kScenario = R"(#!/bin/sh
dir=$1; shift
fifo="$dir/agent.fifo"
rm -f "$fifo"; mkfifo "$fifo"
pkttyagent --process $$ --notify-fd 3 3>"$fifo" &
echo $! >"$dir/agent.pid"
cat "$fifo" >/dev/null
rm -f "$fifo"
exec "$@"
)";

}  // namespace

QString PolkitNamespace::unavailableReason()
{
    if (geteuid() != 0)
        return QStringLiteral("polkit tests run as root");
    for (const char *tool : {"/usr/bin/unshare", "/usr/bin/pkexec", "/usr/bin/pkttyagent",
                             "/usr/bin/dbus-daemon", "/usr/lib/polkit-1/polkitd", "/usr/bin/setpriv"})
        if (!QFileInfo(QString::fromLatin1(tool)).isExecutable())
            return QStringLiteral("%1 is missing").arg(QString::fromLatin1(tool));
    if (!getpwnam(kUser) || !getpwnam(kAdmin))
        return QStringLiteral("the test accounts are missing (scripts/setup-polkit-tests.sh makes them)");
    if (QProcess::execute(QStringLiteral("unshare"), {QStringLiteral("--mount"), QStringLiteral("true")}) !=
        0)
        return QStringLiteral("no private mount namespaces here");
    return QString();
}

PolkitNamespace::PolkitNamespace() : m_work(QDir::tempPath() + QStringLiteral("/mendwell-polkit-XXXXXX"))
{
    ::chmod(QFile::encodeName(m_work.path()).constData(), 0755);
    for (const char *folder : {"/Users", "/Applications", "/Library"})
        QDir().mkpath(hostPath(QString::fromLatin1(folder)));
    makeFolder(QStringLiteral("/Users/anna"), true);
    makeFolder(QStringLiteral("/agent"), true);
    copyTree(QStringLiteral(MENDWELL_BUNDLE_PATH), hostPath(QStringLiteral("/Applications/Mendwell.app")));
    QFile scenario(hostPath(QStringLiteral("/scenario.sh")));
    if (scenario.open(QIODevice::WriteOnly))
        scenario.write(kScenario);
    scenario.close();
    ::chmod(QFile::encodeName(scenario.fileName()).constData(), 0755);
}

bool PolkitNamespace::makeFolder(const QString &path, bool ownedByUser) const
{
    if (!QDir().mkpath(hostPath(path)))
        return false;
    return !ownedByUser || chownTo(hostPath(path), kUser);
}

bool PolkitNamespace::writeFile(const QString &path, const QByteArray &contents, bool ownedByUser) const
{
    QFile file(hostPath(path));
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate) || file.write(contents) != contents.size())
        return false;
    file.close();
    return !ownedByUser || chownTo(hostPath(path), kUser);
}

bool PolkitNamespace::exists(const QString &path) const
{
    struct stat info {};
    return ::lstat(QFile::encodeName(hostPath(path)).constData(), &info) == 0;
}

bool PolkitNamespace::installInBundle(const QString &program) const
{
    const QString target = hostPath(QStringLiteral("/Applications/Mendwell.app/Contents/MacOS/")) +
                           QFileInfo(program).fileName();
    QFile::remove(target);
    return QFile::copy(program, target);
}

PolkitNamespace::Result PolkitNamespace::runAsUser(const QStringList &command, int answered, Agent agent,
                                                   std::chrono::seconds limit) const
{
    Result result;
    QStringList arguments{QStringLiteral("unshare"),
                          QStringLiteral("--mount"),
                          QStringLiteral("--propagation"),
                          QStringLiteral("private"),
                          QStringLiteral("--"),
                          QStringLiteral("/bin/bash"),
                          kScript,
                          m_work.path(),
                          kPolicy,
                          QString::fromLatin1(kAdmin),
                          QStringLiteral("--"),
                          QStringLiteral("setpriv"),
                          QStringLiteral("--reuid=anna"),
                          QStringLiteral("--regid=anna"),
                          m_userGroup.isEmpty() ? QStringLiteral("--init-groups")
                                                : QStringLiteral("--groups=anna,") + m_userGroup,
                          QStringLiteral("--"),
                          QStringLiteral("env"),
                          QStringLiteral("-i"),
                          QStringLiteral("PATH=/usr/local/bin:/usr/bin:/bin"),
                          QStringLiteral("HOME=/Users/anna"),
                          QStringLiteral("USER=anna"),
                          QStringLiteral("LOGNAME=anna"),
                          QStringLiteral("LC_ALL=C.UTF-8")};
    for (const char *name : {"ASAN_OPTIONS", "UBSAN_OPTIONS", "LSAN_OPTIONS", "TSAN_OPTIONS"})
        if (qEnvironmentVariableIsSet(name))
            arguments << QString::fromLatin1(name) + QLatin1Char('=') + qEnvironmentVariable(name);
    if (agent == Agent::Terminal)
        arguments << QStringLiteral("/bin/sh") << hostPath(QStringLiteral("/scenario.sh"))
                  << hostPath(QStringLiteral("/agent"));
    arguments << command;

    std::vector<QByteArray> storage;
    std::vector<char *> argv;
    for (const QString &argument : arguments)
        storage.push_back(argument.toLocal8Bit());
    for (QByteArray &argument : storage)
        argv.push_back(argument.data());
    argv.push_back(nullptr);

    // Without the terminal's agent standard error gets a pipe of its own, so
    // that what the command writes there can be told from what it shows.
    int errors[2] = {-1, -1};
    if (agent == Agent::None && ::pipe2(errors, O_CLOEXEC) != 0)
        return result;
    int master = -1;
    const pid_t child = forkpty(&master, nullptr, nullptr, nullptr);
    if (child < 0) {
        for (const int end : errors)
            if (end >= 0)
                ::close(end);
        return result;
    }
    if (child == 0) {
        if (errors[1] >= 0)
            ::dup2(errors[1], STDERR_FILENO);
        ::execvp(argv[0], argv.data());
        ::_exit(127);
    }
    if (errors[1] >= 0)
        ::close(errors[1]);

    const auto deadline = std::chrono::steady_clock::now() + limit;
    char buffer[4096];
    bool terminalOpen = true;
    while (terminalOpen && std::chrono::steady_clock::now() < deadline) {
        pollfd ready[2] = {{master, POLLIN, 0}, {errors[0], POLLIN, 0}};
        const int count = ::poll(ready, errors[0] >= 0 ? 2 : 1, 200);
        if (count < 0 && errno == EINTR)
            continue;
        if (count == 0)
            continue;
        if (errors[0] >= 0 && ready[1].revents != 0) {
            const ssize_t length = ::read(errors[0], buffer, sizeof buffer);
            if (length > 0) {
                result.errors.append(buffer, length);
            } else {
                ::close(errors[0]);
                errors[0] = -1;
            }
        }
        if (ready[0].revents == 0)
            continue;
        const ssize_t length = ::read(master, buffer, sizeof buffer);
        if (length <= 0) {
            terminalOpen = false;  // EIO: every holder of the terminal has gone
            break;
        }
        result.output.append(buffer, length);
        const int prompts = static_cast<int>(result.output.count("Password:"));
        while (result.passwordPrompts < prompts) {
            ++result.passwordPrompts;
            // The agent turns echo off (flushing pending input) once it reads the
            // password: type only after that, or the password is thrown away.
            for (int i = 0; i < 500; ++i) {
                termios settings{};
                if (::tcgetattr(master, &settings) == 0 && (settings.c_lflag & ECHO) == 0)
                    break;
                ::usleep(10000);
            }
            const QByteArray answer = result.passwordPrompts <= answered ? QByteArray(kAdminPassword) + '\n'
                                                                         : QByteArray("wrong password\n");
            [[maybe_unused]] const ssize_t written = ::write(master, answer.constData(), answer.size());
        }
    }
    if (terminalOpen)
        ::kill(child, SIGKILL);
    // The rest of standard error, which ends with the command (bounded all the
    // same: nothing here may hang the test).
    while (errors[0] >= 0) {
        pollfd ready{errors[0], POLLIN, 0};
        const ssize_t length = ::poll(&ready, 1, 2000) > 0 ? ::read(errors[0], buffer, sizeof buffer) : 0;
        if (length > 0) {
            result.errors.append(buffer, length);
        } else {
            ::close(errors[0]);
            errors[0] = -1;
        }
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    ::close(master);
    result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    QFile log(hostPath(QStringLiteral("/polkitd.log")));
    if (log.open(QIODevice::ReadOnly))
        result.polkitLog = log.readAll();
    return result;
}
