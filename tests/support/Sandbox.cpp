#include "tests/support/Sandbox.h"

#include "tests/support/FreshRoot.h"
#include "tests/support/TestFiles.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QStandardPaths>

#include <chrono>
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

using namespace Qt::Literals::StringLiterals;

namespace {

struct Account {
    uid_t uid = 0;
    gid_t gid = 0;
};

std::optional<Account> userAccount()
{
    const passwd *entry = getpwnam(Sandbox::kUser);
    if (entry == nullptr)
        return std::nullopt;
    return Account{entry->pw_uid, entry->pw_gid};
}

}  // namespace

QString Sandbox::unavailableReason()
{
    if (geteuid() != 0)
        return u"sandbox tests run as root"_s;
    if (QStandardPaths::findExecutable(u"bwrap"_s).isEmpty())
        return u"bubblewrap (bwrap) is not installed"_s;
    if (!userAccount())
        return u"the test account anna does not exist (scripts/setup-tests.sh makes it)"_s;
    return QString();
}

uid_t Sandbox::userId()
{
    return userAccount().value_or(Account{}).uid;
}

gid_t Sandbox::userGroupId()
{
    return userAccount().value_or(Account{}).gid;
}

Sandbox::Sandbox() : m_root(QDir::tempPath() + u"/mendwell-sandbox-XXXXXX"_s)
{
    for (const char *folder : {"Users", "Library", "Applications", "root", "runtime-root", "runtime-user"})
        QDir().mkpath(m_root.path() + u'/' + QLatin1String(folder));
    disk::chmod(m_root.path(), 0755);
    disk::chmod(m_root.path() + u"/runtime-root"_s, 0700);
    disk::chmod(m_root.path() + u"/runtime-user"_s, 0700);
    makeFolder(u"/Users/anna"_s, true);
    copyTree(QStringLiteral(MENDWELL_BUNDLE_PATH), hostPath(u"/Applications/Mendwell.app"_s));
    if (const auto account = userAccount())
        disk::chown(m_root.path() + u"/runtime-user"_s, account->uid, account->gid);
}

QString Sandbox::installInBundle(const QString &name) const
{
    const QString inside = u"/Applications/Mendwell.app/Contents/MacOS/"_s + name;
    return QFile::copy(QStringLiteral(MENDWELL_TEST_PROGRAMS_DIR "/") + name, hostPath(inside)) ? inside
                                                                                                : QString();
}

QString Sandbox::installTestProgram(const QString &name) const
{
    const QString inside = u"/Applications/TestPrograms/"_s + name;
    QDir().mkpath(hostPath(u"/Applications/TestPrograms"_s));
    QFile::copy(QStringLiteral(MENDWELL_TEST_PROGRAMS_DIR "/") + name, hostPath(inside));
    return inside;
}

bool Sandbox::installStandInApplication(const QString &path, const QString &executable,
                                        const QByteArray &infoEntries, const QByteArray &behaviour,
                                        const QString &record, bool ownedByUser) const
{
    const QByteArray info = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict>"
                            "<key>CFBundleExecutable</key><string>" +
                            executable.toUtf8() + "</string>" + infoEntries + "</dict></plist>\n";
    if (!writeFile(path + u"/Contents/Info.plist"_s, info, ownedByUser) ||
        !makeFolder(path + u"/Contents/Resources"_s, ownedByUser) ||
        !makeFolder(path + u"/Contents/MacOS"_s, ownedByUser))
        return false;
    if (!behaviour.isEmpty() && !writeFile(path + u"/Contents/Resources/behaviour"_s,
                                           behaviour + '\n' + record.toUtf8() + '\n', ownedByUser))
        return false;
    const QString installed = hostPath(path + u"/Contents/MacOS/"_s + executable);
    if (!QFile::copy(QStringLiteral(MENDWELL_TEST_PROGRAMS_DIR "/editorstandin"), installed) ||
        ::chmod(QFile::encodeName(installed).constData(), 0755) != 0)
        return false;
    const auto account = userAccount();
    return !ownedByUser ||
           (account && ::lchown(QFile::encodeName(installed).constData(), account->uid, account->gid) == 0);
}

QString Sandbox::hostPath(const QString &sandboxPath) const
{
    return m_root.path() + sandboxPath;
}

bool Sandbox::makeFolder(const QString &sandboxPath, bool ownedByUser, int mode) const
{
    const auto account = userAccount();
    const bool made = ownedByUser
                          ? account && disk::makePath(hostPath(sandboxPath), account->uid, account->gid)
                          : QDir().mkpath(hostPath(sandboxPath));
    return made && (mode < 0 || disk::chmod(hostPath(sandboxPath), static_cast<mode_t>(mode)));
}

bool Sandbox::writeFile(const QString &sandboxPath, const QByteArray &contents, bool ownedByUser,
                        int mode) const
{
    if (!makeFolder(QFileInfo(sandboxPath).path(), ownedByUser) ||
        !disk::write(hostPath(sandboxPath), contents, mode))
        return false;
    const auto account = userAccount();
    return !ownedByUser || (account && disk::chown(hostPath(sandboxPath), account->uid, account->gid));
}

bool Sandbox::writeProgram(const QString &sandboxPath, const QByteArray &script) const
{
    return writeFile(sandboxPath, script, false, 0755);
}

QByteArray Sandbox::readFile(const QString &sandboxPath) const
{
    return disk::read(hostPath(sandboxPath));
}

QStringList Sandbox::recordLines(const QString &sandboxPath, int count) const
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    QStringList lines;
    for (;;) {
        lines = QString::fromUtf8(readFile(sandboxPath)).split(u'\n', Qt::SkipEmptyParts);
        if (lines.size() >= count || std::chrono::steady_clock::now() > deadline)
            return lines;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
}

bool Sandbox::exists(const QString &sandboxPath) const
{
    return QFileInfo::exists(hostPath(sandboxPath));
}

QStringList Sandbox::bubblewrapArguments() const
{
    // /Users, /Library and /Applications are this test's own.
    QStringList args = QStringList{u"bwrap"_s} +
                       bubblewrapFreshRoot({u"Users"_s, u"Library"_s, u"Applications"_s, u"root"_s});
    // Root's own settings stay in the sandbox too; the build and the sources (which
    // may lie in root's home) stay where the tests look for them.
    for (const QString &own : {u"/Library"_s, u"/Applications"_s, u"/Users"_s, u"/root"_s})
        args << u"--bind"_s << hostPath(own) << own;
    for (const QString &tree : {QStringLiteral(MENDWELL_SOURCE_DIR), QStringLiteral(MENDWELL_BINARY_DIR)})
        if (tree.startsWith(u"/root/"_s))
            args << u"--bind"_s << tree << tree;
    // The console user comes from the environment, not from a desktop seat of the
    // machine the tests happen to run on.
    if (QFileInfo(u"/run/systemd/seats"_s).isDir())
        args << u"--tmpfs"_s << u"/run/systemd/seats"_s;
    for (qsizetype i = 0; i + 1 < m_overlays.size(); i += 2)
        args << u"--ro-bind"_s << m_overlays[i] << m_overlays[i + 1];
    args << u"--unshare-pid"_s << u"--die-with-parent"_s << u"--clearenv"_s;
    return args;
}

ProcessResult Sandbox::run(const QStringList &arguments, const QStringList &environment, bool asUser) const
{
    QStringList args = bubblewrapArguments();
    QStringList env{u"PATH=/usr/local/bin:/usr/bin:/bin:/usr/sbin:/sbin"_s, u"LC_ALL=C.UTF-8"_s};
    if (asUser) {
        env << u"HOME=/Users/anna"_s << u"USER=anna"_s << u"LOGNAME=anna"_s
            << u"XDG_RUNTIME_DIR="_s + m_root.path() + u"/runtime-user"_s;
    } else {
        env << u"HOME=/root"_s << u"USER=root"_s << u"SUDO_USER=anna"_s
            << u"XDG_RUNTIME_DIR="_s + m_root.path() + u"/runtime-root"_s;
    }
    // Sanitizer settings of the test run reach the program under test.
    for (const char *name :
         {"ASAN_OPTIONS", "UBSAN_OPTIONS", "TSAN_OPTIONS", "LSAN_OPTIONS", "QT_QPA_PLATFORM"})
        if (qEnvironmentVariableIsSet(name))
            env << QString::fromLatin1(name) + u'=' + qEnvironmentVariable(name);
    env << environment;
    for (const QString &assignment : env) {
        const qsizetype equals = assignment.indexOf(u'=');
        args << u"--setenv"_s << assignment.left(equals) << assignment.mid(equals + 1);
    }
    args << u"--"_s;
    if (asUser)
        args << u"setpriv"_s << u"--reuid=anna"_s << u"--regid=anna"_s << u"--init-groups"_s << u"--"_s;
    QStringList command = arguments;
    if (!command.isEmpty() && command.first() == u"Mendwell"_s)
        command.first() = mendwellPath();
    args << command;
    return runProcess(args);
}

void Sandbox::overlay(const QString &hostPath, const QString &sandboxPath)
{
    m_overlays << hostPath << sandboxPath;
}

ProcessResult Sandbox::runAsRoot(const QStringList &arguments, const QStringList &environment) const
{
    return run(arguments, environment, false);
}

ProcessResult Sandbox::runAsUser(const QStringList &arguments, const QStringList &environment) const
{
    return run(arguments, environment, true);
}
