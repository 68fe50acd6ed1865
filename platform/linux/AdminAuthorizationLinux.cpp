#include "platform/AdminAuthorization.h"

#include "platform/ChildProcess.h"
#include "platform/linux/PolkitCredentialAgentLinux.h"

#include <QFileInfo>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <ctime>
#include <mutex>
#include <pthread.h>
#include <sys/prctl.h>
#include <unistd.h>

namespace platform {

namespace {

const QString kPkexec = QStringLiteral("/usr/bin/pkexec");
// The credentials could not be checked (errAuthorizationInternal): no system bus,
// or polkit would not take our agent.
constexpr int kNoCredentialService = -60008;

bool writeAll(int fd, const char *data, size_t length)
{
    // A runner that has gone must not end this process with SIGPIPE: block the
    // signal for this thread and swallow the one a failed write raises.
    sigset_t pipeSignal;
    sigemptyset(&pipeSignal);
    sigaddset(&pipeSignal, SIGPIPE);
    sigset_t previous;
    pthread_sigmask(SIG_BLOCK, &pipeSignal, &previous);
    bool ok = true;
    while (length > 0) {
        const ssize_t written = ::write(fd, data, length);
        if (written < 0 && errno == EINTR)
            continue;
        if (written <= 0) {
            ok = false;
            if (errno == EPIPE) {
                const timespec none{0, 0};
                sigtimedwait(&pipeSignal, nullptr, &none);
            }
            break;
        }
        data += written;
        length -= static_cast<size_t>(written);
    }
    pthread_sigmask(SIG_SETMASK, &previous, nullptr);
    return ok;
}

bool readAll(int fd, char *data, size_t length)
{
    while (length > 0) {
        const ssize_t count = ::read(fd, data, length);
        if (count < 0 && errno == EINTR)
            continue;
        if (count <= 0)
            return false;
        data += count;
        length -= static_cast<size_t>(count);
    }
    return true;
}

}  // namespace

bool writeMessage(int fd, const QByteArray &message)
{
    const quint32 length = static_cast<quint32>(message.size());
    const unsigned char header[4] = {
        static_cast<unsigned char>(length >> 24), static_cast<unsigned char>(length >> 16),
        static_cast<unsigned char>(length >> 8), static_cast<unsigned char>(length)};
    return writeAll(fd, reinterpret_cast<const char *>(header), 4) &&
           writeAll(fd, message.constData(), static_cast<size_t>(message.size()));
}

std::optional<QByteArray> readMessage(int fd)
{
    unsigned char header[4];
    if (!readAll(fd, reinterpret_cast<char *>(header), 4))
        return std::nullopt;
    const quint32 length = (quint32(header[0]) << 24) | (quint32(header[1]) << 16) |
                           (quint32(header[2]) << 8) | quint32(header[3]);
    if (length > kMaximumMessage)
        return std::nullopt;
    QByteArray message(static_cast<qsizetype>(length), Qt::Uninitialized);
    if (!readAll(fd, message.data(), length))
        return std::nullopt;
    return message;
}

struct AdminAuthorization::Runner {
    std::shared_ptr<ChildProcess> process;
    std::mutex mutex;  // one request at a time
    std::atomic<bool> valid{true};
};

AdminAuthorization::AdminAuthorization() : m_runner(std::make_unique<Runner>())
{
}

AdminAuthorization::~AdminAuthorization()
{
    // The runner reads the end of its input and exits; the child is collected in
    // the background.
    if (m_runner && m_runner->process)
        m_runner->process->closeStandardInput();
}

namespace {

// pkexec's status when it did not run the program: not authorized or dismissed.
constexpr int kPkexecNotAuthorized = 126;

bool canStart(const QString &runnerPath)
{
    return QFileInfo(kPkexec).isExecutable() && QFileInfo(runnerPath).isExecutable();
}

// Starts the runner through pkexec and waits for its first message, which
// comes once polkit has let it run. None otherwise, with pkexec's status in
// CODE (126 not authorized or dismissed, 127 anything else).
std::shared_ptr<ChildProcess> startRunner(const QString &runnerPath, int *code)
{
    // The runner's input and output are pipes that only this process holds, so
    // nobody else can hand it commands.
    auto process = std::make_shared<ChildProcess>(kPkexec, QStringList{runnerPath});
    // Other processes of the same user may neither trace this one nor open its
    // descriptors through /proc, so the pipes to the runner stay ours alone.
    ::prctl(PR_SET_DUMPABLE, 0, 0, 0, 0);
    process->setStandardInput(ChildProcess::Stream::Pipe);
    process->setStandardOutput(ChildProcess::Stream::Pipe);
    if (!process->launch()) {
        *code = 127;
        return nullptr;
    }
    const std::optional<QByteArray> ready = readMessage(process->standardOutputReadEnd());
    if (!ready || *ready != AdminAuthorization::kReadyMessage) {
        process->closeStandardInput();
        process->waitUntilExit();
        const int status = process->terminationStatus().value_or(127);
        *code = status != 0 ? status : 127;
        return nullptr;
    }
    *code = 0;
    return process;
}

}  // namespace

std::shared_ptr<AdminAuthorization> AdminAuthorization::acquire(const QString &runnerPath, int *status)
{
    auto setStatus = [status](int value) {
        if (status)
            *status = value;
    };
    if (!canStart(runnerPath)) {
        setStatus(127);
        return nullptr;
    }
    // pkexec asks polkit with user interaction allowed: the session's agent
    // shows its password dialog.
    int code = 0;
    std::shared_ptr<ChildProcess> process = startRunner(runnerPath, &code);
    setStatus(code);
    if (!process)
        return nullptr;
    std::shared_ptr<AdminAuthorization> authorization(new AdminAuthorization());
    authorization->m_runner->process = std::move(process);
    return authorization;
}

std::shared_ptr<AdminAuthorization> AdminAuthorization::acquire(const QString &runnerPath,
                                                                const QString &user, const QString &password,
                                                                int *status)
{
    auto setStatus = [status](int value) {
        if (status)
            *status = value;
    };
    if (!canStart(runnerPath)) {
        setStatus(127);
        return nullptr;
    }
    QByteArray secret = password.toUtf8();
    // polkit's helper reads the password as one line: from a password with a
    // line break or a zero byte it would check only the part before it.
    if (user.isEmpty() || secret.isEmpty() || secret.contains('\n') || secret.contains('\0')) {
        ::explicit_bzero(secret.data(), static_cast<size_t>(secret.size()));
        setStatus(kStatusDenied);
        return nullptr;
    }
    // pkexec authorizes its parent, this process: polkitd turns to the agent
    // registered for it, ours, which answers with the credentials and shows
    // nothing. It is gone again before this returns, so nothing else this
    // process starts later is answered with them.
    int code = 0;
    std::shared_ptr<ChildProcess> process;
    PolkitCredentialAgent::Outcome outcome = PolkitCredentialAgent::Outcome::NotAsked;
    {
        PolkitCredentialAgent agent(user, std::move(secret), kActionId);
        if (!agent.start()) {
            setStatus(kNoCredentialService);
            return nullptr;
        }
        process = startRunner(runnerPath, &code);
        outcome = agent.finish();
    }
    if (process) {
        std::shared_ptr<AdminAuthorization> authorization(new AdminAuthorization());
        authorization->m_runner->process = std::move(process);
        setStatus(0);
        return authorization;
    }
    // Refused by PAM or not among the administrators polkit offered; or polkit
    // refused outright without asking for anyone's password.
    if (outcome == PolkitCredentialAgent::Outcome::Refused ||
        (outcome == PolkitCredentialAgent::Outcome::NotAsked && code == kPkexecNotAuthorized))
        setStatus(kStatusDenied);
    else if (outcome == PolkitCredentialAgent::Outcome::OtherAction)
        setStatus(kNoCredentialService);  // pkexec asked under another action: our policy is not installed
    else
        setStatus(code);
    return nullptr;
}

std::optional<QByteArray> AdminAuthorization::send(const QByteArray &request)
{
    std::lock_guard lock(m_runner->mutex);
    if (!m_runner->valid)
        return std::nullopt;
    const ChildProcess &process = *m_runner->process;
    std::optional<QByteArray> reply;
    if (writeMessage(process.standardInputWriteEnd(), request))
        reply = readMessage(process.standardOutputReadEnd());
    if (!reply)
        m_runner->valid = false;
    return reply;
}

bool AdminAuthorization::isValid() const
{
    return m_runner->valid;
}

}  // namespace platform
