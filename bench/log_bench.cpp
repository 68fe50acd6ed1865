// Log throughput: HXLog against spdlog's rotating file sink, the same number of
// lines of the same length, both turning over at 500000 bytes with five files.
// HXLog writes where it always does (the user's Library/Logs), so the benchmark
// runs itself as the test account inside a throw-away sandbox.
//
//   log_bench [ROUNDS] [LINES]

#include "diagnostics/HXLog.h"
#include "tests/support/Sandbox.h"

#include <QDir>
#include <QFile>
#include <QRegularExpression>

#include <spdlog/sinks/rotating_file_sink.h>
#include <spdlog/spdlog.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

// 72 characters of text: with the date and separator each line is 101 bytes.
QString benchLine(int index)
{
    return QStringLiteral("bench-line %1 ").arg(index, 8, 10, QLatin1Char('0')).leftJustified(72, u'.');
}

// Checks that the files (oldest first) hold lines 0..count-1, each once, in order.
bool allLinesInOrder(const QStringList &filesOldestFirst, int count)
{
    int expected = 0;
    static const QRegularExpression pattern(QStringLiteral("bench-line (\\d{8}) "));
    for (const QString &path : filesOldestFirst) {
        QFile file(path);
        if (!file.exists())
            continue;
        if (!file.open(QIODevice::ReadOnly))
            return false;
        for (const QByteArray &line : file.readAll().split('\n')) {
            const QRegularExpressionMatch match = pattern.match(QString::fromUtf8(line));
            if (!match.hasMatch())
                continue;
            if (match.captured(1).toInt() != expected)
                return false;
            ++expected;
        }
    }
    return expected == count;
}

double hxlogRound(int lines, bool *intact)
{
    const QString folder = HXLog::logFolder();
    QDir(folder).removeRecursively();
    HXLog::createNewLog(QStringLiteral("Bench"));
    HXLog::finishWriting();
    const auto start = Clock::now();
    for (int i = 0; i < lines; ++i)
        HXLog::fastAppendLog(u"%@", benchLine(i));
    HXLog::finishWriting();
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    QStringList files;
    for (int generation = HXLog::kGenerations; generation >= 1; --generation)
        files << folder + QStringLiteral("/Bench.%1.log").arg(generation);
    *intact = allLinesInOrder(files, lines);
    return seconds;
}

double spdlogRound(int lines, bool *intact)
{
    const QString folder = QDir::homePath() + QStringLiteral("/spdlog-bench");
    QDir(folder).removeRecursively();
    QDir().mkpath(folder);
    const std::string base = (folder + QStringLiteral("/Bench.log")).toStdString();
    auto sink = std::make_shared<spdlog::sinks::rotating_file_sink_mt>(base, HXLog::kSizeLimit,
                                                                       HXLog::kGenerations - 1);
    spdlog::logger logger("bench", sink);
    logger.set_pattern("%Y-%m-%d %H:%M:%S %z - %v");
    const auto start = Clock::now();
    for (int i = 0; i < lines; ++i)
        logger.info(benchLine(i).toStdString());
    logger.flush();
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    QStringList files;
    for (int generation = HXLog::kGenerations - 1; generation >= 1; --generation)
        files << folder + QStringLiteral("/Bench.%1.log").arg(generation);
    files << folder + QStringLiteral("/Bench.log");
    *intact = allLinesInOrder(files, lines);
    return seconds;
}

double median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

int runInside(int rounds, int lines)
{
    std::vector<double> hx;
    std::vector<double> sp;
    bool hxIntact = true;
    bool spIntact = true;
    for (int round = 0; round < rounds; ++round) {
        bool intact = false;
        // Alternate which goes first so neither always meets a warm page cache.
        if (round % 2 == 0) {
            hx.push_back(hxlogRound(lines, &intact));
            hxIntact = hxIntact && intact;
            sp.push_back(spdlogRound(lines, &intact));
            spIntact = spIntact && intact;
        } else {
            sp.push_back(spdlogRound(lines, &intact));
            spIntact = spIntact && intact;
            hx.push_back(hxlogRound(lines, &intact));
            hxIntact = hxIntact && intact;
        }
    }
    const double hxRate = lines / median(hx);
    const double spRate = lines / median(sp);
    std::printf("lines per round: %d of 101 bytes, %d rounds, rotation at %llu bytes over %d files\n", lines,
                rounds, static_cast<unsigned long long>(HXLog::kSizeLimit), HXLog::kGenerations);
    std::printf("HXLog : %12.0f lines/s  every line on disk in order: %s\n", hxRate, hxIntact ? "yes" : "NO");
    std::printf("spdlog: %12.0f lines/s  every line on disk in order: %s\n", spRate, spIntact ? "yes" : "NO");
    std::printf("ratio HXLog/spdlog: %.2f\n", hxRate / spRate);
    return hxIntact && spIntact ? 0 : 1;
}

}  // namespace

int main(int argc, char **argv)
{
    const bool inside = argc > 1 && QString::fromUtf8(argv[1]) == QLatin1String("--inside");
    const int first = inside ? 2 : 1;
    const int rounds = argc > first ? std::atoi(argv[first]) : 15;
    const int lines = argc > first + 1 ? std::atoi(argv[first + 1]) : 24000;
    if (inside)
        return runInside(rounds, lines);

    const QString reason = Sandbox::unavailableReason();
    if (!reason.isEmpty()) {
        std::fprintf(stderr, "log_bench: %s\n", qPrintable(reason));
        return 2;
    }
    Sandbox box;
    const QString self = QFile::symLinkTarget(QStringLiteral("/proc/self/exe"));
    const QString installed = box.hostPath(QStringLiteral("/Applications/log_bench"));
    QFile::copy(self, installed);
    const ProcessResult result =
        box.runAsUser({QStringLiteral("/Applications/log_bench"), QStringLiteral("--inside"),
                       QString::number(rounds), QString::number(lines)});
    std::fwrite(result.out.constData(), 1, static_cast<size_t>(result.out.size()), stdout);
    std::fwrite(result.err.constData(), 1, static_cast<size_t>(result.err.size()), stderr);
    return result.exitCode;
}
