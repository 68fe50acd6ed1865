#pragma once

// The administrator right of the platform: a privileged runner (the bundle's
// "authtool", started through polkit's pkexec on Linux) that executes commands
// sent by this process alone, over pipes only this process holds. Releasing the
// last reference ends the runner, and with it the right.

#include <QByteArray>
#include <QString>

#include <memory>
#include <optional>

namespace platform {

class AdminAuthorization {
public:
    // The polkit action the runner is started under.
    static constexpr const char *kActionId = "com.lanternfish.mendwell.authtool";
    // The runner's first message: it runs with the rights and listens.
    static constexpr const char *kReadyMessage = "authtool-ready";
    // The status of credentials that were refused (wrong password, or not an
    // administrator); any other failure has a status of its own.
    static constexpr int kStatusDenied = -60005;

    // Starts RUNNER with administrator rights, letting the system ask the user
    // (blocks until the user has answered). None when the user is not
    // authorized, cancelled, or the runner did not start; STATUS then holds the
    // system's reason (a non-zero code).
    static std::shared_ptr<AdminAuthorization> acquire(const QString &runnerPath, int *status = nullptr);

    // The same from given credentials, without asking anyone or showing a
    // dialog. None with STATUS kStatusDenied when the credentials were refused,
    // another non-zero STATUS when the check could not be made.
    static std::shared_ptr<AdminAuthorization> acquire(const QString &runnerPath, const QString &user,
                                                       const QString &password, int *status = nullptr);

    ~AdminAuthorization();
    AdminAuthorization(const AdminAuthorization &) = delete;
    AdminAuthorization &operator=(const AdminAuthorization &) = delete;

    // Sends one request and waits for the runner's reply; none when the runner
    // has gone (the right is then lost for good).
    std::optional<QByteArray> send(const QByteArray &request);
    bool isValid() const;

private:
    AdminAuthorization();
    struct Runner;
    std::unique_ptr<Runner> m_runner;
};

// One length-prefixed message on a pipe, at most kMaximumMessage bytes; false or
// none when the pipe has ended (or a longer message was announced).
constexpr quint32 kMaximumMessage = 16 * 1024 * 1024;
bool writeMessage(int fd, const QByteArray &message);
std::optional<QByteArray> readMessage(int fd);

}  // namespace platform
