// Prints the protected-folder rule's answers for each path given, one line each:
// "PATH exact=0|1 any=0|1" (exactMatch YES, then NO).

#include "system/HXLocalPaths.h"

#include <QString>

#include <cstdio>

int main(int argc, char **argv)
{
    for (int i = 1; i < argc; ++i) {
        const QString path = QString::fromLocal8Bit(argv[i]);
        std::printf("%s exact=%d any=%d\n", argv[i], HXLocalPaths::isPathSystemDirectory(path, true) ? 1 : 0,
                    HXLocalPaths::isPathSystemDirectory(path, false) ? 1 : 0);
    }
    return 0;
}
