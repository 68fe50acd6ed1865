// Where each failure of the subprocess runner is reported: every text goes to
// the log, and all but one also to standard output.

#include "tests/support/Sandbox.h"

#include <gtest/gtest.h>

TEST(TaskFailureTextsTest, EachTextGoesToTheLogAndOnlySomeToStandardOutput)
{
    SKIP_WITHOUT_SANDBOX();
    Sandbox box;
    const QString program = box.installTestProgram(QStringLiteral("taskfailures"));
    const QString child = box.installTestProgram(QStringLiteral("hxtaskchild"));
    const ProcessResult run = box.runAsUser({program, child});
    ASSERT_EQ(run.exitCode, 0) << run.err.toStdString();
    EXPECT_EQ(run.out, "== not executable\n"
                       "Error: /nonexistent/tool is not executable\n"
                       "== no task set\n"
                       "Unable to launch async task - no task set\n"
                       "== async tool missing\n"
                       "== timed out\n"
                       "Task /Applications/TestPrograms/hxtaskchild timed out. Terminating...\n"
                       "== end\n");
    const QByteArray log =
        box.readFile(QStringLiteral("/Users/anna/Library/Logs/Lanternfish/taskfailures.1.log"));
    for (const char *text :
         {"Error: /nonexistent/tool is not executable\n", "Unable to launch async task - no task set\n",
          "Unable to launch async task - task does not exist or is not executable\n",
          "Task /Applications/TestPrograms/hxtaskchild timed out. Terminating...\n"})
        EXPECT_TRUE(log.contains(text)) << text << log.toStdString();
}
