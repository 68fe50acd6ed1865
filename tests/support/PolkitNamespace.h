#pragma once

// polkit for real, for the privileged-operation tests: a private mount namespace
// with a fresh root in which /Users, /Applications and /Library are this test's
// own, /run/dbus is a tmpfs with our own system bus (dbus-daemon --system), and
// polkitd runs with our policy added to its actions and a rule that names the
// test administrator. A command runs there as anna on a pseudo-terminal, by
// default with pkttyagent registered for it, into which the administrator's
// password is typed. (pkexec's own agent needs a login session, which a test
// does not have.)
// The bundle is installed as /Applications/Mendwell.app, the path our policy names.

#include <QByteArray>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>

#include <chrono>

class PolkitNamespace {
public:
    // scripts/setup-polkit-tests.sh makes this account and sets its password.
    static constexpr const char *kAdmin = "mwadmin";
    static constexpr const char *kAdminPassword = "mendwell-admin-test";
    static constexpr const char *kUser = "anna";

    // Why polkit cannot run here; empty when it can.
    static QString unavailableReason();

    PolkitNamespace();

    QString hostPath(const QString &path) const { return m_work.path() + path; }
    bool makeFolder(const QString &path, bool ownedByUser) const;
    bool writeFile(const QString &path, const QByteArray &contents, bool ownedByUser) const;
    bool exists(const QString &path) const;
    // Copies PROGRAM into the installed bundle's Contents/MacOS.
    bool installInBundle(const QString &program) const;
    // Later commands run with GROUP among anna's groups (the administrators'
    // group, say); an empty GROUP gives her her own again.
    void setUserGroup(const QString &group) { m_userGroup = group; }

    // Who answers polkit for the command: pkttyagent on the terminal, or no
    // agent at all (the command registers its own). Either way a prompt that
    // reaches the terminal is counted and answered.
    enum class Agent { Terminal, None };

    struct Result {
        int exitCode = -1;
        QByteArray output;  // everything written to the terminal
        QByteArray errors;  // standard error, kept apart from the terminal with Agent::None only
        int passwordPrompts = 0;
        QByteArray polkitLog;
    };
    // Runs COMMAND as anna. The password is typed at the first ANSWERED prompts;
    // later ones get a wrong password. A command still running after LIMIT is killed.
    Result runAsUser(const QStringList &command, int answered = 1, Agent agent = Agent::Terminal,
                     std::chrono::seconds limit = std::chrono::seconds(60)) const;

private:
    QTemporaryDir m_work;
    QString m_userGroup;
};

#define SKIP_WITHOUT_POLKIT()                                                                                \
    do {                                                                                                     \
        const QString reason = PolkitNamespace::unavailableReason();                                         \
        if (!reason.isEmpty())                                                                               \
            GTEST_SKIP() << reason.toStdString();                                                            \
    } while (false)
