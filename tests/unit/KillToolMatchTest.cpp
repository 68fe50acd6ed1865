// killtool's choice of processes, on paths the sandboxed run does not meet, and
// the facts about a pinned process that choice rests on.

#include "app/audit/AdobeProcesses.h"
#include "platform/Processes.h"

#include <gtest/gtest.h>

#include <QFile>
#include <QTemporaryDir>

#include <chrono>
#include <csignal>
#include <spawn.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

extern char **environ;

TEST(KillToolMatch, NameExactlyAndSomeFolderAboveItAdobes)
{
    const auto matches = [](const char *path) { return isAdobeBackgroundProcess(QString::fromUtf8(path)); };
    EXPECT_TRUE(matches("/Library/Application Support/Adobe/Common/dynamiclinkmanager"));
    // Names that merely contain a listed one or differ from it in case.
    EXPECT_FALSE(matches("/Library/Application Support/Adobe/MyAdobeIPCBroker"));
    EXPECT_FALSE(matches("/Library/Application Support/Adobe/adobeipcbroker"));
    EXPECT_FALSE(matches("/Library/Application Support/Adobe/Core Sync.app"));
    // Folders that only look like Adobe's.
    EXPECT_FALSE(matches("/tmp/foo/AdobeIPCBroker"));
    EXPECT_FALSE(matches("/Applications/AdobeTools/AdobeIPCBroker"));
    EXPECT_FALSE(matches("/Applications/NotAdobe/AdobeIPCBroker"));
    // Paths that are not plain absolute ones.
    EXPECT_FALSE(matches("Adobe/AdobeIPCBroker"));
    EXPECT_FALSE(matches("/Adobe/../usr/bin/AdobeIPCBroker"));
    EXPECT_FALSE(matches("/Library/Adobe/AdobeIPCBroker/"));
}

TEST(KillToolMatch, OnlyTheConsoleUsersOwnProcessesOrProgramsOnlyRootCanPlace)
{
    constexpr uid_t anna = 1001;
    constexpr uid_t other = 1002;
    // Wholly the console user's, wherever its program lies.
    EXPECT_TRUE(mayEndAdobeProcess(anna, anna, false));
    // Another user's, root's, or one whose ids differ (none is sole).
    EXPECT_FALSE(mayEndAdobeProcess(other, anna, false));
    EXPECT_FALSE(mayEndAdobeProcess(0, anna, false));
    EXPECT_FALSE(mayEndAdobeProcess(std::nullopt, anna, false));
    // Nobody at the console, or root there: no process is anyone's to end.
    EXPECT_FALSE(mayEndAdobeProcess(anna, std::nullopt, false));
    EXPECT_FALSE(mayEndAdobeProcess(0, 0, false));
    // A program only root can have placed, whoever runs it.
    for (const std::optional<uid_t> owner : {std::optional<uid_t>(0), std::optional<uid_t>(other),
                                             std::optional<uid_t>(anna), std::optional<uid_t>()})
        for (const std::optional<uid_t> console : {std::optional<uid_t>(anna), std::optional<uid_t>()})
            EXPECT_TRUE(mayEndAdobeProcess(owner, console, true));
}

namespace {

// PROGRAM started as a child that sleeps, pinned once it runs PROGRAM (a
// bounded number of looks), and ended when this goes.
class SleepingChild {
public:
    explicit SleepingChild(const QString &program)
    {
        const QByteArray path = QFile::encodeName(program);
        char *const arguments[] = {const_cast<char *>(path.constData()), const_cast<char *>("60"), nullptr};
        if (::posix_spawn(&m_pid, path.constData(), nullptr, nullptr, arguments, environ) != 0) {
            m_pid = 0;
            return;
        }
        for (int look = 0; look < 500 && !pinned; ++look) {
            pinned = platform::PinnedProcess::pin(m_pid, program);
            if (!pinned)
                std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    }
    ~SleepingChild()
    {
        if (m_pid <= 0)
            return;
        ::kill(m_pid, SIGKILL);
        ::waitpid(m_pid, nullptr, 0);
    }
    SleepingChild(const SleepingChild &) = delete;
    SleepingChild &operator=(const SleepingChild &) = delete;

    std::optional<platform::PinnedProcess> pinned;

private:
    pid_t m_pid = 0;
};

}  // namespace

TEST(KillToolMatch, APinnedProcessKnowsItsSoleUserAndWhetherOnlyRootCanHavePlacedItsProgram)
{
    const QString system = QStringLiteral("/usr/bin/sleep");
    ASSERT_TRUE(QFile::exists(system));
    // Root's program in root's folders.
    {
        const SleepingChild child(system);
        ASSERT_TRUE(child.pinned);
        EXPECT_EQ(child.pinned->soleUser(), ::getuid());
        EXPECT_TRUE(child.pinned->runsRootOnlyProgram());
    }
    // The same program copied into a folder its group may write to.
    QTemporaryDir folder;
    ASSERT_TRUE(folder.isValid());
    ASSERT_TRUE(QFile::setPermissions(folder.path(), QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner |
                                                         QFile::ReadGroup | QFile::WriteGroup |
                                                         QFile::ExeGroup));
    const QString copy = folder.filePath(QStringLiteral("sleep"));
    ASSERT_TRUE(QFile::copy(system, copy));
    const SleepingChild child(copy);
    ASSERT_TRUE(child.pinned);
    EXPECT_EQ(child.pinned->soleUser(), ::getuid());
    EXPECT_FALSE(child.pinned->runsRootOnlyProgram());
}
