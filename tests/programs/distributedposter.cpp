// Posts one distributed notification and exits at once, as a command-line run
// does at its end.
//
//   distributedposter [--no-application] <name> [<key>=<value>...]
//
// With --no-application no Qt application object exists (the command-line mode).

#include "system/HXDistributedNotificationCenter.h"

#include <QCoreApplication>
#include <QStringList>

#include <memory>

int main(int argc, char **argv)
{
    QStringList args;
    for (int i = 1; i < argc; ++i)
        args.append(QString::fromUtf8(argv[i]));
    std::unique_ptr<QCoreApplication> app;
    if (!args.isEmpty() && args.first() == QLatin1String("--no-application"))
        args.removeFirst();
    else
        app = std::make_unique<QCoreApplication>(argc, argv);
    if (args.isEmpty())
        return 2;
    QVariantMap userInfo;
    for (const QString &pair : args.mid(1))
        userInfo.insert(pair.section(QLatin1Char('='), 0, 0), pair.section(QLatin1Char('='), 1));
    return HXDistributedNotificationCenter::defaultCenter().postNotification(args.first(), userInfo) ? 0 : 1;
}
