#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>

#include <chrono>

struct ProcessResult {
    int exitCode = -1;
    bool crashed = false;
    QByteArray out;
    QByteArray err;
};

// Runs ARGUMENTS (program first) to its end with ENVIRONMENT ("NAME=value"; the
// caller's environment when empty) and INPUT on its standard input.
ProcessResult runProcess(const QStringList &arguments, const QStringList &environment = {},
                         const QByteArray &input = {},
                         std::chrono::seconds limit = std::chrono::seconds(300));
