#include "app/HXCommandLine.h"

const char *const HXCommandLine::helpText =
    "\nMendwell Help\n\n-help - Displays command listings.\n-repair - Activates command-line mode and "
    "starts the repair automatically.\n-silent - Suppresses output (ignored if -repair is not "
    "set).\n-trash - Trashes preferences and window layouts (ignored if -repair is not "
    "set).\n-trashPrefs - Trashes preferences (ignored if -repair is not set).\n-trashworkspace - "
    "Trashes window layout (ignored if -repair is not set).";

HXCommandLine HXCommandLine::parse(const QStringList &arguments)
{
    HXCommandLine options;
    for (const QString &argument : arguments) {
        const QString option = argument.toLower();
        if (option == QLatin1String("-help")) {
            options.help = true;
            return options;
        }
        if (option == QLatin1String("-repair") || option == QLatin1String("-auto")) {
            options.commandLineMode = true;
        } else if (option == QLatin1String("-silent")) {
            options.silent = true;
        } else if (option == QLatin1String("-trash")) {
            options.trashPreferences = true;
            options.trashWorkspaces = true;
        } else if (option == QLatin1String("-trashprefs")) {
            options.trashPreferences = true;
        } else if (option == QLatin1String("-trashworkspace")) {
            options.trashWorkspaces = true;
        }
    }
    return options;
}
