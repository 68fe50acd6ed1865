// A child process for the subprocess-runner tests. The first argument picks what
// it does; see each branch.

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <unistd.h>

namespace {

void writeAll(int fd, const char *data, size_t length)
{
    while (length > 0) {
        const ssize_t written = ::write(fd, data, length);
        if (written <= 0)
            std::exit(90);
        data += written;
        length -= static_cast<size_t>(written);
    }
}

void writeText(int fd, const char *text)
{
    writeAll(fd, text, std::strlen(text));
}

void writeRepeated(int fd, char byte, size_t count)
{
    std::string block(65536, byte);
    while (count > 0) {
        const size_t now = count < block.size() ? count : block.size();
        writeAll(fd, block.data(), now);
        count -= now;
    }
}

}  // namespace

int main(int argc, char **argv)
{
    if (argc < 2)
        return 64;
    const std::string mode = argv[1];
    const char *a = argc > 2 ? argv[2] : "";
    const char *b = argc > 3 ? argv[3] : "";
    if (mode == "out") {  // out TEXT
        writeText(1, a);
    } else if (mode == "err") {  // err TEXT
        writeText(2, a);
    } else if (mode == "both") {  // both OUT ERR
        writeText(2, b);
        writeText(1, a);
    } else if (mode == "exit") {  // exit CODE
        return std::atoi(a);
    } else if (mode == "hex") {  // hex BYTES: raw bytes, e.g. "41c3a9"
        for (const char *p = a; p[0] && p[1]; p += 2) {
            const char pair[3] = {p[0], p[1], 0};
            const char byte = static_cast<char>(std::strtol(pair, nullptr, 16));
            writeAll(1, &byte, 1);
        }
    } else if (mode == "big") {  // big COUNT: COUNT bytes to standard error first, then to output
        const size_t count = std::strtoul(a, nullptr, 10);
        writeRepeated(2, 'e', count);
        writeRepeated(1, 'o', count);
    } else if (mode == "stdin") {  // reads its input to the end
        char buffer[256];
        while (::read(0, buffer, sizeof buffer) > 0) {
        }
        writeText(1, "eof");
    } else if (mode == "env") {  // env NAME
        const char *value = std::getenv(a);
        writeText(1, value ? value : "(unset)");
    } else if (mode == "sleep") {  // sleep SECONDS [TEXT]: prints TEXT, then sleeps
        writeText(1, b);
        ::sleep(static_cast<unsigned>(std::atoi(a)));
    } else if (mode == "stubborn") {  // stubborn SECONDS: ignores SIGTERM and sleeps
        std::signal(SIGTERM, SIG_IGN);
        ::sleep(static_cast<unsigned>(std::atoi(a)));
    } else if (mode == "pieces") {  // pieces COUNT: numbered lines, one every 20 ms
        const int count = std::atoi(a);
        for (int i = 0; i < count; ++i) {
            const std::string line = "piece " + std::to_string(i) + "\n";
            writeAll(1, line.data(), line.size());
            ::usleep(20000);
        }
    } else if (mode == "endless") {  // writes until it is stopped
        for (;;) {
            writeText(1, "more\n");
            ::usleep(10000);
        }
    } else {
        return 64;
    }
    return 0;
}
