#pragma once

// For drivers that run as a sandbox's only program: the sandbox ends every process
// when its first one ends, so a driver outlives the programs it started detached.

#include <QDir>
#include <QString>
#include <QStringList>

#include <algorithm>
#include <chrono>
#include <thread>

#include <unistd.h>

// Waits (a bounded while) until no process but the sandbox's first and this one is left.
inline void waitForStartedPrograms()
{
    const QString self = QString::number(::getpid());
    for (int round = 0; round < 400; ++round) {
        const QStringList entries = QDir(QStringLiteral("/proc")).entryList(QDir::Dirs);
        const bool othersLeft = std::any_of(entries.begin(), entries.end(), [&](const QString &entry) {
            bool isProcess = false;
            entry.toInt(&isProcess);
            return isProcess && entry != u"1" && entry != self;
        });
        if (!othersLeft)
            return;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
}
