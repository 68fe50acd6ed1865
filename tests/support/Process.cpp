#include "tests/support/Process.h"

#include <QProcess>

ProcessResult runProcess(const QStringList &arguments, const QStringList &environment,
                         const QByteArray &input, std::chrono::seconds limit)
{
    ProcessResult result;
    if (arguments.isEmpty())
        return result;
    QProcess process;
    if (!environment.isEmpty())
        process.setEnvironment(environment);
    process.start(arguments.first(), arguments.mid(1));
    if (!process.waitForStarted()) {
        result.err = process.errorString().toUtf8();
        return result;
    }
    if (!input.isEmpty())
        process.write(input);
    process.closeWriteChannel();
    if (!process.waitForFinished(static_cast<int>(std::chrono::milliseconds(limit).count()))) {
        process.kill();
        process.waitForFinished();
        result.crashed = true;
    }
    result.out = process.readAllStandardOutput();
    result.err = process.readAllStandardError();
    result.exitCode = process.exitCode();
    result.crashed = result.crashed || process.exitStatus() == QProcess::CrashExit;
    return result;
}
