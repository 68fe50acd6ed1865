#include "platform/Platform.h"

#include <QByteArray>
#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <pwd.h>
#include <sys/sysinfo.h>
#include <sys/utsname.h>
#include <syslog.h>
#include <systemd/sd-login.h>
#include <unistd.h>

namespace platform {

namespace {

// The user of the active session on seat0. A display-manager greeter is the
// login screen, which counts as nobody at the console.
std::optional<QString> seatUser(bool *seatAnswered)
{
    *seatAnswered = false;
    char *session = nullptr;
    uid_t uid = 0;
    if (sd_seat_get_active("seat0", &session, &uid) < 0 || session == nullptr)
        return std::nullopt;
    *seatAnswered = true;
    char *sessionClass = nullptr;
    const bool greeter = sd_session_get_class(session, &sessionClass) >= 0 && sessionClass &&
                         std::string_view(sessionClass) == "greeter";
    std::free(sessionClass);
    std::free(session);
    if (greeter)
        return std::nullopt;
    return userNameOfUid(uid);
}

}  // namespace

std::optional<QString> userNameOfUid(unsigned uid)
{
    passwd entry{};
    passwd *found = nullptr;
    char buffer[4096];
    if (getpwuid_r(uid, &entry, buffer, sizeof buffer, &found) != 0 || found == nullptr)
        return std::nullopt;
    return QString::fromLocal8Bit(found->pw_name);
}

std::optional<QString> consoleUser()
{
    bool seatAnswered = false;
    std::optional<QString> user = seatUser(&seatAnswered);
    if (!seatAnswered) {
        // No seat (a server, a container, a remote login): whoever invoked us
        // through sudo or pkexec is the person at the keyboard.
        const QByteArray sudoUser = qgetenv("SUDO_USER");
        if (!sudoUser.isEmpty()) {
            user = QString::fromLocal8Bit(sudoUser);
        } else {
            bool ok = false;
            const uint uid = qEnvironmentVariable("PKEXEC_UID").toUInt(&ok);
            if (ok)
                user = userNameOfUid(uid);
        }
    }
    if (user && (user->isEmpty() || *user == QLatin1String("loginwindow")))
        return std::nullopt;
    return user;
}

std::optional<QString> homeDirectoryOfUser(const QString &userName)
{
    if (userName.isEmpty())
        return std::nullopt;
    passwd entry{};
    passwd *found = nullptr;
    char buffer[4096];
    const QByteArray name = userName.toLocal8Bit();
    if (getpwnam_r(name.constData(), &entry, buffer, sizeof buffer, &found) != 0 || found == nullptr)
        return std::nullopt;
    return QString::fromLocal8Bit(found->pw_dir);
}

QString processUserName()
{
    return userNameOfUid(getuid()).value_or(QString());
}

bool isRoot()
{
    return getuid() == 0;
}

void systemLog(const QString &line)
{
    // Same shape as NSLog: date, process name and id, then the text.
    const QByteArray text = line.toUtf8();
    const QByteArray stamp =
        QDateTime::currentDateTime().toString(QStringLiteral("yyyy-MM-dd HH:mm:ss.zzz")).toUtf8();
    const QByteArray process = QFileInfo(executablePath()).fileName().toUtf8();
    std::fprintf(stderr, "%s %s[%d] %s\n", stamp.constData(), process.constData(), static_cast<int>(getpid()),
                 text.constData());
    std::fflush(stderr);
    syslog(LOG_NOTICE, "%s", text.constData());
}

OSVersion osVersion()
{
    utsname names{};
    if (uname(&names) != 0)
        return {0, 0, 0, errno};
    OSVersion version;
    std::sscanf(names.release, "%ld.%ld.%ld", &version.major, &version.minor, &version.patch);
    return version;
}

QString osVersionString()
{
    const OSVersion version = osVersion();
    return QStringLiteral("%1.%2.%3").arg(version.major).arg(version.minor).arg(version.patch);
}

int processorCount()
{
    const long count = sysconf(_SC_NPROCESSORS_CONF);
    return count > 0 ? static_cast<int>(count) : 1;
}

std::uint64_t physicalMemoryBytes()
{
    struct sysinfo info {};
    if (sysinfo(&info) != 0)
        return 0;
    return static_cast<std::uint64_t>(info.totalram) * info.mem_unit;
}

QString executablePath()
{
    return QFileInfo(QStringLiteral("/proc/self/exe")).canonicalFilePath();
}

QString temporaryDirectory()
{
    QString dir = qEnvironmentVariable("TMPDIR");
    if (dir.isEmpty() || !QFileInfo(dir).isDir())
        dir = QStringLiteral("/tmp");
    while (dir.size() > 1 && dir.endsWith(QLatin1Char('/')))
        dir.chop(1);
    return dir;
}

std::optional<QString> userCacheDirectory()
{
    // The closest thing Linux names per user: the session's runtime folder.
    const QString runtime = qEnvironmentVariable("XDG_RUNTIME_DIR");
    if (runtime.isEmpty())
        return std::nullopt;
    return runtime;
}

}  // namespace platform

namespace platform {

QString trashFolderInHome()
{
    // The freedesktop.org home trash, so the file manager can restore what we trash.
    return QStringLiteral(".local/share/Trash/files");
}

}  // namespace platform

namespace platform {

QStringList processArguments()
{
    QFile file(QStringLiteral("/proc/self/cmdline"));
    QStringList arguments;
    if (!file.open(QIODevice::ReadOnly))
        return arguments;
    const QByteArray all = file.readAll();
    for (const QByteArray &argument : all.split('\0'))
        arguments.append(QString::fromLocal8Bit(argument));
    if (!arguments.isEmpty() && all.endsWith('\0'))
        arguments.removeLast();
    return arguments;
}

}  // namespace platform
