#include "tests/support/Sandbox.h"

#include "tests/support/FreshRoot.h"
#include "tests/support/TestFiles.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QStandardPaths>

#include <chrono>
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

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

bool chownTree(const QString &path, const Account &account)
{
    if (::lchown(QFile::encodeName(path).constData(), account.uid, account.gid) != 0)
        return false;
    QDirIterator it(path, QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden | QDir::System,
                    QDirIterator::Subdirectories);
    while (it.hasNext())
        if (::lchown(QFile::encodeName(it.next()).constData(), account.uid, account.gid) != 0)
            return false;
    return true;
}

}  // namespace

QString Sandbox::unavailableReason()
{
    if (geteuid() != 0)
        return QStringLiteral("sandbox tests run as root");
    if (QStandardPaths::findExecutable(QStringLiteral("bwrap")).isEmpty())
        return QStringLiteral("bubblewrap (bwrap) is not installed");
    if (!userAccount())
        return QStringLiteral("the test account anna does not exist (scripts/setup-tests.sh makes it)");
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

Sandbox::Sandbox() : m_root(QDir::tempPath() + QStringLiteral("/mendwell-sandbox-XXXXXX"))
{
    for (const char *folder : {"Users", "Library", "Applications", "root", "runtime-root", "runtime-user"})
        QDir().mkpath(m_root.path() + QLatin1Char('/') + QLatin1String(folder));
    ::chmod(QFile::encodeName(m_root.path()).constData(), 0755);
    ::chmod(QFile::encodeName(m_root.path() + QStringLiteral("/runtime-root")).constData(), 0700);
    ::chmod(QFile::encodeName(m_root.path() + QStringLiteral("/runtime-user")).constData(), 0700);
    makeFolder(QStringLiteral("/Users/anna"), true);
    copyTree(QStringLiteral(MENDWELL_BUNDLE_PATH), hostPath(QStringLiteral("/Applications/Mendwell.app")));
    if (const auto account = userAccount())
        ::lchown(QFile::encodeName(m_root.path() + QStringLiteral("/runtime-user")).constData(), account->uid,
                 account->gid);
}

QString Sandbox::installTestProgram(const QString &name) const
{
    const QString inside = QStringLiteral("/Applications/TestPrograms/") + name;
    QDir().mkpath(hostPath(QStringLiteral("/Applications/TestPrograms")));
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
    if (!writeFile(path + QStringLiteral("/Contents/Info.plist"), info, ownedByUser) ||
        !makeFolder(path + QStringLiteral("/Contents/Resources"), ownedByUser) ||
        !makeFolder(path + QStringLiteral("/Contents/MacOS"), ownedByUser))
        return false;
    if (!behaviour.isEmpty() && !writeFile(path + QStringLiteral("/Contents/Resources/behaviour"),
                                           behaviour + '\n' + record.toUtf8() + '\n', ownedByUser))
        return false;
    const QString installed = hostPath(path + QStringLiteral("/Contents/MacOS/") + executable);
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

bool Sandbox::makeFolder(const QString &sandboxPath, bool ownedByUser) const
{
    QStringList missing;
    for (QString probe = sandboxPath; probe.size() > 1 && !exists(probe); probe = QFileInfo(probe).path())
        missing.prepend(hostPath(probe));
    if (!QDir().mkpath(hostPath(sandboxPath)))
        return false;
    if (!ownedByUser)
        return true;
    const auto account = userAccount();
    if (!account)
        return false;
    for (const QString &made : missing)
        if (::lchown(QFile::encodeName(made).constData(), account->uid, account->gid) != 0)
            return false;
    return true;
}

bool Sandbox::writeFile(const QString &sandboxPath, const QByteArray &contents, bool ownedByUser) const
{
    if (!makeFolder(QFileInfo(sandboxPath).path(), ownedByUser))
        return false;
    const QString path = hostPath(sandboxPath);
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate) || file.write(contents) != contents.size())
        return false;
    file.close();
    if (!ownedByUser)
        return true;
    const auto account = userAccount();
    return account && chownTree(path, *account);
}

bool Sandbox::writeProgram(const QString &sandboxPath, const QByteArray &script) const
{
    return writeFile(sandboxPath, script) &&
           ::chmod(QFile::encodeName(hostPath(sandboxPath)).constData(), 0755) == 0;
}

QByteArray Sandbox::readFile(const QString &sandboxPath) const
{
    QFile file(hostPath(sandboxPath));
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

QStringList Sandbox::recordLines(const QString &sandboxPath, int count) const
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    QStringList lines;
    for (;;) {
        lines = QString::fromUtf8(readFile(sandboxPath)).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
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
    QStringList args = QStringList{QStringLiteral("bwrap")} +
                       bubblewrapFreshRoot({QStringLiteral("Users"), QStringLiteral("Library"),
                                            QStringLiteral("Applications"), QStringLiteral("root")});
    args << QStringLiteral("--bind") << hostPath(QStringLiteral("/Library")) << QStringLiteral("/Library");
    args << QStringLiteral("--bind") << hostPath(QStringLiteral("/Applications"))
         << QStringLiteral("/Applications");
    args << QStringLiteral("--bind") << hostPath(QStringLiteral("/Users")) << QStringLiteral("/Users");
    // Root's own settings stay in the sandbox too; the build and the sources (which
    // may lie in root's home) stay where the tests look for them.
    args << QStringLiteral("--bind") << hostPath(QStringLiteral("/root")) << QStringLiteral("/root");
    for (const QString &tree : {QStringLiteral(MENDWELL_SOURCE_DIR), QStringLiteral(MENDWELL_BINARY_DIR)})
        if (tree.startsWith(QLatin1String("/root/")))
            args << QStringLiteral("--bind") << tree << tree;
    // The console user comes from the environment, not from a desktop seat of the
    // machine the tests happen to run on.
    if (QFileInfo(QStringLiteral("/run/systemd/seats")).isDir())
        args << QStringLiteral("--tmpfs") << QStringLiteral("/run/systemd/seats");
    for (qsizetype i = 0; i + 1 < m_overlays.size(); i += 2)
        args << QStringLiteral("--ro-bind") << m_overlays[i] << m_overlays[i + 1];
    args << QStringLiteral("--unshare-pid") << QStringLiteral("--die-with-parent")
         << QStringLiteral("--clearenv");
    return args;
}

ProcessResult Sandbox::run(const QStringList &arguments, const QStringList &environment, bool asUser) const
{
    QStringList args = bubblewrapArguments();
    QStringList env{QStringLiteral("PATH=/usr/local/bin:/usr/bin:/bin:/usr/sbin:/sbin"),
                    QStringLiteral("LC_ALL=C.UTF-8")};
    if (asUser) {
        env << QStringLiteral("HOME=/Users/anna") << QStringLiteral("USER=anna")
            << QStringLiteral("LOGNAME=anna")
            << QStringLiteral("XDG_RUNTIME_DIR=") + m_root.path() + QStringLiteral("/runtime-user");
    } else {
        env << QStringLiteral("HOME=/root") << QStringLiteral("USER=root") << QStringLiteral("SUDO_USER=anna")
            << QStringLiteral("XDG_RUNTIME_DIR=") + m_root.path() + QStringLiteral("/runtime-root");
    }
    // Sanitizer settings of the test run reach the program under test.
    for (const char *name :
         {"ASAN_OPTIONS", "UBSAN_OPTIONS", "TSAN_OPTIONS", "LSAN_OPTIONS", "QT_QPA_PLATFORM"})
        if (qEnvironmentVariableIsSet(name))
            env << QString::fromLatin1(name) + QLatin1Char('=') + qEnvironmentVariable(name);
    env << environment;
    for (const QString &assignment : env) {
        const qsizetype equals = assignment.indexOf(QLatin1Char('='));
        args << QStringLiteral("--setenv") << assignment.left(equals) << assignment.mid(equals + 1);
    }
    args << QStringLiteral("--");
    if (asUser)
        args << QStringLiteral("setpriv") << QStringLiteral("--reuid=anna") << QStringLiteral("--regid=anna")
             << QStringLiteral("--init-groups") << QStringLiteral("--");
    QStringList command = arguments;
    if (!command.isEmpty() && command.first() == QLatin1String("Mendwell"))
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
