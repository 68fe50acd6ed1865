// Gathers the logs of the applications named, silently, as the menu command does
// without its panels; prints "yes" when an archive was written, else "no".
// usage: app-gatherlogs NAME... [--add PATH]...

#include "app/HXTroubleshootingUtils.h"

#include <QString>
#include <QStringList>

#include <cstdio>
#include <cstring>

int main(int argc, char **argv)
{
    QStringList names;
    QStringList additional;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--add") == 0 && i + 1 < argc)
            additional.append(QString::fromLocal8Bit(argv[++i]));
        else
            names.append(QString::fromLocal8Bit(argv[i]));
    }
    const bool written = HXTroubleshootingUtils::gatherLogsForAppsWithNames(
        names, true, additional.isEmpty() ? std::nullopt : std::optional<QStringList>(additional));
    std::puts(written ? "yes" : "no");
    return 0;
}
