// authtool: the privileged runner of Mendwell. Started through pkexec by a
// Mendwell process that has just been authorized, it carries out the commands
// that process sends over its standard input and answers on its standard output,
// until that input ends. It takes no commands from anywhere else.

#include "system/HXPrivilegedRequest.h"

#include <unistd.h>

int main()
{
    // Standard error stays the caller's; input and output are the command pipes.
    return HXPrivilegedRunnerMain(STDIN_FILENO, STDOUT_FILENO);
}
