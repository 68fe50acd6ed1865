// Sends progress reports to the client application, as a command-line run does,
// and exits right after the last one.
//
//   taskreporter <report>...   report: progress | finished | error | errorstring=<text> | disconnect
//
// Writes its log "taskreporter" and prints "<report> <microseconds>" per report.

#include "diagnostics/HXLog.h"
#include "system/HXTaskNotification.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QStringList>

#include <cstdio>

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    HXLog::createNewLog(QStringLiteral("taskreporter"));
    const QVariantMap error{{QStringLiteral("domain"), QStringLiteral("HXTestDomain")},
                            {QStringLiteral("code"), 42},
                            {QStringLiteral("description"), QStringLiteral("Something failed")}};
    for (const QString &report : app.arguments().mid(1)) {
        QElapsedTimer timer;
        timer.start();
        if (report == QLatin1String("progress"))
            HXTaskNotification::postIncrementProgress();
        else if (report == QLatin1String("finished"))
            HXTaskNotification::postTaskFinished();
        else if (report == QLatin1String("error"))
            HXTaskNotification::postTaskError(error);
        else if (report.startsWith(QLatin1String("errorstring=")))
            HXTaskNotification::postTaskErrorString(report.mid(12));
        else if (report == QLatin1String("disconnect"))
            HXTaskNotification::postDisconnect();
        std::printf("%s %lld\n", qPrintable(report.section(QLatin1Char('='), 0, 0)),
                    static_cast<long long>(timer.nsecsElapsed() / 1000));
    }
    HXLog::finishWriting();
    return 0;
}
