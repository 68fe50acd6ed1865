// Makes the subprocess runner fail in each way it reports, with a marker line on
// standard output before each, so a test can tell which texts went to standard
// output and which only to the log ("taskfailures").
//   taskfailures CHILD   (CHILD: the hxtaskchild test program)

#include "diagnostics/HXLog.h"
#include "platform/ChildProcess.h"
#include "system/HXTaskEx.h"

#include <QCoreApplication>

#include <cstdio>

namespace {

void mark(const char *text)
{
    std::printf("== %s\n", text);
    std::fflush(stdout);
}

}  // namespace

int main(int argc, char **argv)
{
    using namespace std::chrono_literals;
    QCoreApplication app(argc, argv);
    if (argc < 2)
        return 2;
    const QString child = QString::fromLocal8Bit(argv[1]);
    const QString missing = QStringLiteral("/nonexistent/tool");
    HXLog::createNewLog(QStringLiteral("taskfailures"));

    mark("not executable");
    HXTaskEx::runTask(missing, {});
    mark("no task set");
    HXTaskEx::create()->launchAsyncTask();
    mark("async tool missing");
    const std::shared_ptr<HXTaskEx> reader = HXTaskEx::create();
    reader->setTheTask(std::make_shared<platform::ChildProcess>(missing, QStringList{}));
    reader->launchAsyncTask();
    mark("timed out");
    HXTaskEx::runTask(child, {QStringLiteral("sleep"), QStringLiteral("300")}, 1s);
    mark("end");
    HXLog::finishWriting();
    return 0;
}
