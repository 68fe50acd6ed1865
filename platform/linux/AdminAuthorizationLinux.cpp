#include "platform/AdminAuthorization.h"

#include "platform/ChildProcess.h"

#include <QFileInfo>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <ctime>
#include <mutex>
#include <pthread.h>
#include <sys/prctl.h>
#include <unistd.h>

namespace platform {

namespace {

const QString kPkexec = QStringLiteral("/usr/bin/pkexec");
constexpr quint32 kMaxMessage = 16 * 1024 * 1024;
// The status macOS gives when no credentials can be taken (errAuthorizationInternal).
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
    if (length > kMaxMessage)
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

std::shared_ptr<AdminAuthorization> AdminAuthorization::acquire(const QString &runnerPath, int *status)
{
    auto setStatus = [status](int value) {
        if (status)
            *status = value;
    };
    if (!QFileInfo(kPkexec).isExecutable() || !QFileInfo(runnerPath).isExecutable()) {
        setStatus(127);
        return nullptr;
    }
    // pkexec asks polkit with user interaction allowed: the session's agent
    // shows its password dialog. The runner's input and output are pipes that
    // only this process holds, so nobody else can hand it commands.
    auto process = std::make_shared<ChildProcess>(kPkexec, QStringList{runnerPath});
    // Other processes of the same user may neither trace this one nor open its
    // descriptors through /proc, so the pipes to the runner stay ours alone.
    ::prctl(PR_SET_DUMPABLE, 0, 0, 0, 0);
    process->setStandardInput(ChildProcess::Stream::Pipe);
    process->setStandardOutput(ChildProcess::Stream::Pipe);
    if (!process->launch()) {
        setStatus(127);
        return nullptr;
    }
    const std::optional<QByteArray> ready = readMessage(process->standardOutputReadEnd());
    if (!ready || *ready != kReadyMessage) {
        process->closeStandardInput();
        process->waitUntilExit();
        // pkexec: 126 not authorized or dismissed, 127 anything else.
        const int code = process->terminationStatus().value_or(127);
        setStatus(code != 0 ? code : 127);
        return nullptr;
    }
    std::shared_ptr<AdminAuthorization> authorization(new AdminAuthorization());
    authorization->m_runner->process = std::move(process);
    setStatus(0);
    return authorization;
}

std::shared_ptr<AdminAuthorization> AdminAuthorization::acquire(const QString &, const QString &,
                                                                const QString &, int *status)
{
    if (status)
        *status = kNoCredentialService;
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
