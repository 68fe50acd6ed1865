// Drives HXAuthorization the way the repair does, one operation per argument
// group, printing "<operation> <result>" per line. Run from inside the bundle's
// Contents/MacOS so that the privileged runner lies beside it.
//   authclient [--nogui] OPERATION ARGS... [, OPERATION ARGS...]...
// Operations: start, end, authorized, remove P, trash P, trashdelete P,
// trashcontents F, movecontents F D, move S D, copy S D, mkdir P, exec TOOL,
// fdprobe (lists this process's descriptors from a child process), ride,
// startwith USER PASSWORD (writes the program log "authclient").

#include "diagnostics/HXLog.h"
#include "system/HXAuthorization.h"
#include "system/HXTaskEx.h"

#include <QString>
#include <QStringList>

#include <cstdio>
#include <unistd.h>
#include <utility>

int main(int argc, char **argv)
{
    QStringList arguments;
    for (int i = 1; i < argc; ++i)
        arguments << QString::fromLocal8Bit(argv[i]);
    bool gui = true;
    if (!arguments.isEmpty() && arguments.first() == QLatin1String("--nogui")) {
        gui = false;
        arguments.removeFirst();
    }
    HXAuthorization &auth = HXAuthorization::sharedController(gui);

    QList<QStringList> operations{{}};
    for (const QString &argument : arguments) {
        if (argument == QLatin1String(","))
            operations.append(QStringList());
        else
            operations.last() << argument;
    }
    for (const QStringList &operation : operations) {
        if (operation.isEmpty())
            continue;
        const QString name = operation.first();
        const QString a = operation.value(1);
        const QString b = operation.value(2);
        long long result = -100;
        if (name == QLatin1String("start"))
            result = auth.authStart();
        else if (name == QLatin1String("startwith")) {
            static bool logOpened = false;  // a refusal is written to the program log too
            if (!std::exchange(logOpened, true))
                HXLog::createNewLog(QStringLiteral("authclient"));
            result = auth.authStartWithUser(a, b);
            HXLog::finishWriting();
        } else if (name == QLatin1String("end"))
            auth.authEnd(), result = 1;
        else if (name == QLatin1String("authorized"))
            result = auth.isAuthorized();
        else if (name == QLatin1String("remove"))
            result = auth.authRemoveFile(a);
        else if (name == QLatin1String("trash"))
            result = auth.authTrashFile(a);
        else if (name == QLatin1String("trashdelete"))
            result = auth.authTrashFile(a, true);
        else if (name == QLatin1String("trashcontents"))
            result = auth.authTrashFolderContents(a);
        else if (name == QLatin1String("movecontents"))
            result = auth.authMoveFolderContents(a, b);
        else if (name == QLatin1String("move"))
            result = auth.authMoveFile(a, b);
        else if (name == QLatin1String("copy"))
            result = auth.authCopyFile(a, b);
        else if (name == QLatin1String("mkdir"))
            result = auth.authCreateDir(a);
        else if (name == QLatin1String("exec"))
            result = auth.authExecTask(a, operation.mid(2), false);
        else if (name == QLatin1String("fdprobe"))
            result = HXTaskEx::terminationCodeFromTask(QStringLiteral("/bin/ls"),
                                                       {QStringLiteral("/proc/%1/fd/").arg(::getpid())});
        else if (name == QLatin1String("ride"))  // another pkexec of the runner: must authenticate anew
            result = HXTaskEx::terminationCodeFromTask(QStringLiteral("/usr/bin/pkexec"),
                                                       {HXAuthorization::runnerPath()});
        std::printf("%s %lld\n", qPrintable(name), result);
        std::fflush(stdout);
    }
    return 0;
}
