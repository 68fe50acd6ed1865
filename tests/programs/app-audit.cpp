// Prints the permission audit of each folder given (or of the three folders a
// repair audits), one wrong path per line; "(left out)" for an excluded folder.

#include "app/audit/HXMendwellUtils.h"

#include <QCoreApplication>

#include <cstdio>

int main(int argc, char **argv)
{
    QCoreApplication application(argc, argv);
    QStringList folders = application.arguments().mid(1);
    if (folders.isEmpty())
        folders = HXMendwellUtils::auditedFolders();
    for (const QString &folder : folders) {
        const std::optional<QStringList> wrong = HXMendwellUtils::checkPermissionsForDirectory(folder);
        if (!wrong)
            std::printf("(left out)\n");
        for (const QString &path : wrong.value_or(QStringList()))
            std::printf("%s\n", qPrintable(path));
    }
    return 0;
}
