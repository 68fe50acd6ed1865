// The verified copy against the shell's way of doing the same and against the
// hashing it cannot avoid, in one run: a file copied to two destinations with
// SHA-1 read-back verification (copyFileWithProgress), against `cp` twice plus
// `sha1sum` of all three files, and against one core's OpenSSL SHA-1 over the
// same bytes three times in memory.
//
//   copy_bench [FOLDER [MIB]]      (default: the temporary folder, 1024 MiB)
//
// Every time is the median of five runs; caches are flushed (sync) before each.
// cp leaves its copies in the page cache; the verified copy's are flushed to the
// device and read back from it.

#include "fs/HXVerifiedCopy.h"

#include <QByteArray>
#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>

#include <openssl/evp.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <vector>

#include <unistd.h>

namespace {

constexpr int kRuns = 5;

double medianSeconds(const std::function<bool()> &run, const std::function<void()> &reset)
{
    std::vector<double> times;
    for (int i = 0; i < kRuns; ++i) {
        reset();
        ::sync();
        const auto start = std::chrono::steady_clock::now();
        if (!run()) {
            std::fprintf(stderr, "copy_bench: a run failed\n");
            std::exit(1);
        }
        times.push_back(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
    }
    std::sort(times.begin(), times.end());
    std::fprintf(stderr, "  runs:");
    for (const double time : times)
        std::fprintf(stderr, " %.3f", time);
    std::fprintf(stderr, "\n");
    return times[kRuns / 2];
}

QByteArray pseudoRandomBytes(qsizetype size)
{
    QByteArray data(size, Qt::Uninitialized);
    std::uint64_t state = 0x9E3779B97F4A7C15ULL;
    auto *words = reinterpret_cast<std::uint64_t *>(data.data());
    for (qsizetype i = 0; i < size / 8; ++i) {
        state ^= state << 13;
        state ^= state >> 7;
        state ^= state << 17;
        words[i] = state;
    }
    return data;
}

bool sha1Of(const QByteArray &data)
{
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    return EVP_Digest(data.constData(), static_cast<size_t>(data.size()), digest, &length, EVP_sha1(),
                      nullptr) == 1;
}

}  // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    const QStringList args = app.arguments().mid(1);
    const QString folder = args.value(0, QDir::tempPath());
    const qsizetype mib = args.value(1, QStringLiteral("1024")).toLongLong();
    QTemporaryDir work(folder + QStringLiteral("/copy_bench-XXXXXX"));
    if (!work.isValid() || mib <= 0) {
        std::fprintf(stderr, "usage: copy_bench [FOLDER [MIB]]\n");
        return 2;
    }
    const QString source = work.filePath(QStringLiteral("source.mov"));
    const QStringList destinations{work.filePath(QStringLiteral("backup1/source.mov")),
                                   work.filePath(QStringLiteral("backup2/source.mov"))};
    const QByteArray data = pseudoRandomBytes(mib * 1024 * 1024);
    QFile file(source);
    if (!file.open(QIODevice::WriteOnly) || file.write(data) != data.size())
        return 1;
    file.close();
    const auto removeCopies = [&] {
        for (const QString &destination : destinations)
            QFile::remove(destination);
    };

    bool verified = true;
    HXFileManager::HXFileCopyDelegate delegate;
    delegate.fileCopyBytesWritten = [](std::uint64_t, QVariantMap &) {};
    delegate.fileCopyFinished = [&](QVariantMap &settings) {
        const QStringList sums = settings.value(QStringLiteral("destChecksums")).toStringList();
        const QString sum = settings.value(QStringLiteral("sourceChecksum")).toString();
        verified = verified && sums.size() == 2 && sums.count(sum) == 2 && sum.size() == 40;
    };
    const double mendwell = medianSeconds(
        [&] {
            return HXFileManager::copyFileWithProgress(source, destinations,
                                                       HXFileManager::kHXVerificationSHA1, &delegate) &&
                   verified;
        },
        removeCopies);

    const QString script =
        QStringLiteral("cp \"$1\" \"$2\" && cp \"$1\" \"$3\" && sha1sum \"$1\" \"$2\" \"$3\"");
    const double pipeline = medianSeconds(
        [&] {
            QProcess shell;
            shell.setStandardOutputFile(QProcess::nullDevice());
            shell.start(QStringLiteral("/bin/sh"), {QStringLiteral("-c"), script, QStringLiteral("sh"),
                                                    source, destinations[0], destinations[1]});
            return shell.waitForFinished(-1) && shell.exitStatus() == QProcess::NormalExit &&
                   shell.exitCode() == 0;
        },
        removeCopies);

    const double hashing = medianSeconds([&] { return sha1Of(data) && sha1Of(data) && sha1Of(data); }, [] {});

    std::printf("verified copy of %lld MiB to two destinations with SHA-1\n", static_cast<long long>(mib));
    std::printf("  copyFileWithProgress         %7.3f s\n", mendwell);
    std::printf("  cp x2 + sha1sum x3           %7.3f s   ratio %.2f (goal >= 2)\n", pipeline,
                pipeline / mendwell);
    std::printf("  SHA-1 x3 in memory, one core %7.3f s   ratio %.2f (goal <= 1.3)\n", hashing,
                mendwell / hashing);
    return 0;
}
