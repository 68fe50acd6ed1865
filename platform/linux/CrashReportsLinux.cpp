#include "platform/CrashReports.h"

#include "platform/Accounts.h"
#include "platform/Folder.h"

#include <QFile>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <cstdlib>
#include <exception>
#include <typeinfo>
#include <utility>
#include <cxxabi.h>
#include <execinfo.h>
#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace platform {

namespace {

// Everything the handler needs is prepared at installation: it may only make
// async-signal-safe calls.
struct CrashWriter {
    int folder = -1;
    char name[128] = {};
    char host[64] = {};
    char executable[1024] = {};
    long utcOffset = 0;  // seconds east of UTC when installed
    uid_t owner = static_cast<uid_t>(-1);
    gid_t group = static_cast<gid_t>(-1);
    std::atomic<bool> writing{false};
    // Set by the terminate handler.
    char exceptionType[128] = {};
    char exceptionReason[256] = {};
};

CrashWriter writer;
std::terminate_handler previousTerminate = nullptr;
bool terminateHandlerInstalled = false;
constexpr int kFatalSignals[] = {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGABRT, SIGTRAP, SIGSYS};

// A small text buffer filled without allocating.
class Line {
public:
    Line &text(const char *s)
    {
        while (s != nullptr && *s != '\0' && m_length < sizeof m_data - 1)
            m_data[m_length++] = *s++;
        return *this;
    }
    Line &number(unsigned long long value, unsigned base = 10, unsigned width = 1)
    {
        char digits[32];
        unsigned count = 0;
        do {
            digits[count++] = "0123456789abcdef"[value % base];
            value /= base;
        } while (value != 0 && count < sizeof digits);
        while (count < width && count < sizeof digits)
            digits[count++] = '0';
        while (count > 0 && m_length < sizeof m_data - 1)
            m_data[m_length++] = digits[--count];
        return *this;
    }
    const char *data() const { return m_data; }
    std::size_t size() const { return m_length; }
    void writeTo(int fd) const { [[maybe_unused]] const ssize_t written = ::write(fd, m_data, m_length); }

private:
    char m_data[512] = {};
    std::size_t m_length = 0;
};

// Civil date from days since 1970-01-01 (Howard Hinnant's algorithm).
void civilFromDays(long long days, int *year, unsigned *month, unsigned *day)
{
    days += 719468;
    const long long era = (days >= 0 ? days : days - 146096) / 146097;
    const unsigned dayOfEra = static_cast<unsigned>(days - era * 146097);
    const unsigned yearOfEra = (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
    const unsigned dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
    const unsigned shifted = (5 * dayOfYear + 2) / 153;
    *day = dayOfYear - (153 * shifted + 2) / 5 + 1;
    *month = shifted < 10 ? shifted + 3 : shifted - 9;
    *year = static_cast<int>(yearOfEra + era * 400 + (*month <= 2 ? 1 : 0));
}

// "yyyy-MM-dd-HHmmss" in local time as it was at installation.
void appendStamp(Line &line, bool forName)
{
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    const long long local = now.tv_sec + writer.utcOffset;
    const long long days = (local >= 0 ? local : local - 86399) / 86400;
    const long long seconds = local - days * 86400;
    int year = 0;
    unsigned month = 0;
    unsigned day = 0;
    civilFromDays(days, &year, &month, &day);
    line.number(static_cast<unsigned long long>(year), 10, 4).text("-").number(month, 10, 2).text("-");
    line.number(day, 10, 2).text(forName ? "-" : " ");
    line.number(static_cast<unsigned long long>(seconds / 3600), 10, 2).text(forName ? "" : ":");
    line.number(static_cast<unsigned long long>(seconds / 60 % 60), 10, 2).text(forName ? "" : ":");
    line.number(static_cast<unsigned long long>(seconds % 60), 10, 2);
}

const char *signalName(int number)
{
    switch (number) {
    case SIGSEGV:
        return "SIGSEGV";
    case SIGBUS:
        return "SIGBUS";
    case SIGILL:
        return "SIGILL";
    case SIGFPE:
        return "SIGFPE";
    case SIGABRT:
        return "SIGABRT";
    case SIGTRAP:
        return "SIGTRAP";
    case SIGSYS:
        return "SIGSYS";
    default:
        return "signal";
    }
}

void writeReport(int signalNumber, const siginfo_t *info)
{
    if (writer.folder < 0 || writer.writing.exchange(true))
        return;
    Line file;
    file.text(writer.name).text("_");
    appendStamp(file, true);
    file.text("_").text(writer.host).text(".crash");
    const int fd =
        ::openat(writer.folder, file.data(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0)
        return;
    if (writer.owner != static_cast<uid_t>(-1)) {
        [[maybe_unused]] const int given = ::fchown(fd, writer.owner, writer.group);
    }

    Line header;
    header.text("Process:         ")
        .text(writer.name)
        .text(" [")
        .number(static_cast<unsigned>(::getpid()))
        .text("]\n");
    header.text("Path:            ").text(writer.executable).text("\n");
    header.text("Date/Time:       ");
    appendStamp(header, false);
    header.text("\n\n");
    header.writeTo(fd);
    Line cause;
    Line reason;
    if (writer.exceptionType[0] != '\0') {
        cause.text("Exception Type:  uncaught C++ exception (").text(writer.exceptionType).text(")\n");
        if (writer.exceptionReason[0] != '\0') {
            // Where the Mac's reports give an uncaught exception's reason.
            reason.text(
                "\nApplication Specific Information:\n*** Terminating app due to uncaught exception '");
            reason.text(writer.exceptionType).text("', reason: '").text(writer.exceptionReason).text("'\n");
        }
    } else {
        cause.text("Exception Type:  ").text(signalName(signalNumber)).text(" (signal ");
        cause.number(static_cast<unsigned>(signalNumber)).text(")\n");
        if (info != nullptr && info->si_code <= 0) {
            // Sent by kill or a queue: there is no faulting address, only a sender.
            cause.text("Exception Codes: sent by process ").number(static_cast<unsigned>(info->si_pid));
        } else {
            cause.text("Exception Codes: code ")
                .number(static_cast<unsigned>(info != nullptr ? info->si_code : 0));
            cause.text(" at 0x").number(
                reinterpret_cast<unsigned long long>(info != nullptr ? info->si_addr : nullptr), 16);
        }
        cause.text("\n");
    }
    cause.writeTo(fd);
    reason.writeTo(fd);
    // The main thread is thread 0, as on the Mac; any other is named by its id.
    const long thread = ::syscall(SYS_gettid);
    Line crashed;
    crashed.text("\nThread ").number(thread == ::getpid() ? 0 : static_cast<unsigned long long>(thread));
    crashed.text(" Crashed:\n");
    crashed.writeTo(fd);
    void *frames[64];
    const int count = ::backtrace(frames, 64);
    ::backtrace_symbols_fd(frames, count, fd);
    ::close(fd);
}

void onFatalSignal(int signalNumber, siginfo_t *info, void *)
{
    const int savedErrno = errno;
    writeReport(signalNumber, info);
    errno = savedErrno;
    // The handler was reset on entry: the signal now does what it would have done.
    ::raise(signalNumber);
}

// Not a signal handler: it may allocate (and does, to demangle the type's name).
void onTerminate()
{
    if (const std::type_info *type = abi::__cxa_current_exception_type()) {
        int status = -1;
        char *readable = abi::__cxa_demangle(type->name(), nullptr, nullptr, &status);
        std::snprintf(writer.exceptionType, sizeof writer.exceptionType, "%s",
                      status == 0 && readable != nullptr ? readable : type->name());
        std::free(readable);
        try {
            std::rethrow_exception(std::current_exception());
        } catch (const std::exception &exception) {
            std::snprintf(writer.exceptionReason, sizeof writer.exceptionReason, "%s", exception.what());
        } catch (...) {
        }
    } else {
        std::snprintf(writer.exceptionType, sizeof writer.exceptionType, "%s",
                      "terminate called without an exception");
    }
    writeReport(SIGABRT, nullptr);
    // The log's handler, when it came first, still writes the reason to the log.
    if (previousTerminate != nullptr)
        previousTerminate();
    std::abort();
}

}  // namespace

bool installCrashReportWriter(const QString &folder, const QString &applicationName,
                              std::optional<uid_t> owner)
{
    // As root the user's folder is reached as she reaches it, and must be hers:
    // the reports are written into it as root, from the signal handler.
    const std::optional<Account> account = owner && ::geteuid() == 0 ? accountOf(*owner) : std::nullopt;
    std::optional<Folder> opened =
        account ? Folder::openAs(*account, folder, 0755) : Folder::openMakingPath(folder, 0755, owner);
    if (!opened)
        return false;
    writer.folder = ::fcntl(opened->descriptor(), F_DUPFD_CLOEXEC, 3);
    if (writer.folder < 0)
        return false;
    std::snprintf(writer.name, sizeof writer.name, "%s", applicationName.toUtf8().constData());
    char host[256] = {};
    ::gethostname(host, sizeof host - 1);
    // The short host name, as the Mac puts it in report names.
    if (char *dot = std::strchr(host, '.'))
        *dot = '\0';
    std::snprintf(writer.host, sizeof writer.host, "%s", host);
    const ssize_t length = ::readlink("/proc/self/exe", writer.executable, sizeof writer.executable - 1);
    writer.executable[length > 0 ? length : 0] = '\0';
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    ::localtime_r(&now, &local);
    writer.utcOffset = local.tm_gmtoff;
    if (owner && ::geteuid() == 0) {
        writer.owner = *owner;
        writer.group = primaryGroupOf(*owner);
    }
    // backtrace() loads its unwinder on first use; never for the first time in a handler.
    void *frame = nullptr;
    ::backtrace(&frame, 1);

    // A stack of its own, so an overflowed stack still gets its report.
    static char alternateStack[64 * 1024];
    stack_t stack{};
    stack.ss_sp = alternateStack;
    stack.ss_size = sizeof alternateStack;
    ::sigaltstack(&stack, nullptr);
    struct sigaction action {};
    action.sa_sigaction = onFatalSignal;
    action.sa_flags = SA_SIGINFO | SA_ONSTACK | SA_RESETHAND;
    sigemptyset(&action.sa_mask);
    for (int number : kFatalSignals)
        ::sigaction(number, &action, nullptr);
    // Once: a second installation would make this handler its own predecessor.
    if (!std::exchange(terminateHandlerInstalled, true))
        previousTerminate = std::set_terminate(onTerminate);
    return true;
}

}  // namespace platform
