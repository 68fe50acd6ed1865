// Runs each fuzz target over every file of its corpus (CORPUS/<target>/), with
// the ordinary compiler: the seeds and every input that once crashed a reader.
// A failing check or a crash ends the program; the last line printed names the input.

#include <QByteArray>
#include <QDir>
#include <QFile>

#include <cstddef>
#include <cstdint>
#include <cstdio>

#define X(target) extern "C" int target(const uint8_t *data, size_t size);
MENDWELL_FUZZ_TARGETS
#undef X

int main(int argc, char **argv)
{
    if (argc != 2) {
        std::fprintf(stderr, "usage: fuzz_replay CORPUS\n");
        return 2;
    }
    struct Target {
        const char *name;
        int (*run)(const uint8_t *, size_t);
    };
    const Target targets[] = {
#define X(target) {#target, target},
        MENDWELL_FUZZ_TARGETS
#undef X
    };
    for (const Target &target : targets) {
        const QDir folder(QString::fromLocal8Bit(argv[1]) + QLatin1Char('/') + QLatin1String(target.name));
        const QStringList names = folder.entryList(QDir::Files, QDir::Name);
        if (names.isEmpty()) {
            std::fprintf(stderr, "no corpus in %s\n", qPrintable(folder.path()));
            return 1;
        }
        for (const QString &name : names) {
            QFile file(folder.filePath(name));
            if (!file.open(QIODevice::ReadOnly)) {
                std::fprintf(stderr, "cannot read %s\n", qPrintable(file.fileName()));
                return 1;
            }
            std::printf("%s/%s\n", target.name, qPrintable(name));
            std::fflush(stdout);
            const QByteArray bytes = file.readAll();
            target.run(reinterpret_cast<const uint8_t *>(bytes.constData()),
                       static_cast<size_t>(bytes.size()));
        }
    }
    return 0;
}
