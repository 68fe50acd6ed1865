#pragma once

// The command line of the program: case-blind switches that only ever turn flags on.

#include <QStringList>

struct HXCommandLine {
    bool help = false;
    bool commandLineMode = false;
    bool silent = false;
    bool trashPreferences = false;
    bool trashWorkspaces = false;

    // Reads ARGUMENTS (program path first, which matches nothing) in order; stops
    // at "-help". Unknown arguments are ignored.
    static HXCommandLine parse(const QStringList &arguments);

    static const char *const helpText;
};
