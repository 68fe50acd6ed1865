// Drives the log from the command line so tests can run it as a real process in
// the sandbox, as root or as the console user:
//   create [NAME]           start a log
//   fill NAME BYTES         start a log and write 100-character lines one by one
//                           until BYTES have gone to disk
//   worker NAME LENGTH      from a worker thread, log one line of LENGTH characters
//                           and report whether it was on disk when the call returned
//   print NAME TEXT         start a log, then appendLogAndPrint TEXT
//   throw TEXT              let an exception with reason TEXT escape
//   available NAME          list the existing generations
//   quit NAME COUNT         in an application that quits, log COUNT lines just
//                           before it ends and one line after
//   stress NAME THREADS LINES  from THREADS threads at once, log "s<thread> <n>"
//                           for n from 0 to LINES - 1

#include "diagnostics/HXLog.h"

#include <QCoreApplication>
#include <QFile>
#include <QTimer>

#include <cstdio>
#include <stdexcept>
#include <thread>
#include <vector>

namespace {

QString argument(int argc, char **argv, int index)
{
    return index < argc ? QString::fromUtf8(argv[index]) : QString();
}

bool currentLogContains(const QString &text)
{
    QFile file(HXLog::currentLogPath());
    return file.open(QIODevice::ReadOnly) && file.readAll().contains(text.toUtf8());
}

}  // namespace

int main(int argc, char **argv)
{
    const QString command = argument(argc, argv, 1);
    if (command == QLatin1String("create")) {
        HXLog::createNewLog(argument(argc, argv, 2));
    } else if (command == QLatin1String("fill")) {
        HXLog::createNewLog(argument(argc, argv, 2));
        const qulonglong target = argument(argc, argv, 3).toULongLong();
        qulonglong total = 0;
        for (int i = 0; total < target; ++i) {
            HXLog::appendLog(
                u"%@", QStringLiteral("line %1 ").arg(i, 8, 10, QLatin1Char('0')).leftJustified(100, u'x'));
            HXLog::finishWriting();
            total += 100 + 28;  // text, date and separator
        }
    } else if (command == QLatin1String("stress")) {
        HXLog::createNewLog(argument(argc, argv, 2));
        const int lines = argument(argc, argv, 4).toInt();
        std::vector<std::thread> threads;
        for (int t = 0; t < argument(argc, argv, 3).toInt(); ++t)
            threads.emplace_back([t, lines] {
                for (int n = 0; n < lines; ++n)
                    HXLog::appendLog(u"s%@ %@", QString::number(t),
                                     QStringLiteral("%1").arg(n, 6, 10, QLatin1Char('0')));
            });
        for (std::thread &thread : threads)
            thread.join();
        HXLog::finishWriting();
    } else if (command == QLatin1String("worker")) {
        HXLog::createNewLog(argument(argc, argv, 2));
        HXLog::finishWriting();
        const int length = argument(argc, argv, 3).toInt();
        const QString line = QStringLiteral("worker-line").leftJustified(length, u'w');
        bool onDisk = false;
        std::thread worker([&] {
            HXLog::appendLog(u"%@", line);
            onDisk = currentLogContains(line);
        });
        worker.join();
        std::printf("%s\n", onDisk ? "on-disk" : "queued");
    } else if (command == QLatin1String("print")) {
        HXLog::createNewLog(argument(argc, argv, 2));
        HXLog::appendLogAndPrint(u"%@", argument(argc, argv, 3));
    } else if (command == QLatin1String("throw")) {
        HXLog::createNewLog(QStringLiteral("Thrower"));
        throw std::runtime_error(argument(argc, argv, 2).toStdString());
    } else if (command == QLatin1String("available")) {
        HXLog::sharedController().setAppName(argument(argc, argv, 2));
        for (const QString &path : HXLog::availableLogs())
            std::printf("%s\n", qPrintable(path));
    } else if (command == QLatin1String("quit")) {
        HXLog::sharedController();  // first used before the application exists
        QCoreApplication app(argc, argv);
        HXLog::createNewLog(argument(argc, argv, 2));
        HXLog::finishWriting();
        const int count = argument(argc, argv, 3).toInt();
        QTimer::singleShot(0, &app, [&] {
            for (int i = 0; i < count; ++i)
                HXLog::fastAppendLog(u"before quit %@", i);
            app.quit();
        });
        app.exec();
        HXLog::fastAppendLog(u"after quit");
        std::printf("%s\n", qPrintable(HXLog::sharedController().appName()));
        return 0;
    } else {
        std::fprintf(stderr, "unknown command\n");
        return 2;
    }
    HXLog::finishWriting();
    return 0;
}
