// returnTaskOutputWithTool: a tool's complaints, only when it fails.

#include "app/HXAppController.h"

#include <gtest/gtest.h>

TEST(ToolOutputTest, OnlyAFailingToolsErrorOutputComesBack)
{
    const QString shell = QStringLiteral("/bin/sh");
    // Standard output is never read, even from a failing tool.
    EXPECT_EQ(HXAppController::returnTaskOutputWithTool(
                  shell,
                  {QStringLiteral("-c"), QStringLiteral("echo out; printf 'bad \\303\\244\\n' >&2; exit 3")}),
              std::optional<QString>(QString::fromUtf8("bad \xc3\xa4\n")));
    EXPECT_EQ(HXAppController::returnTaskOutputWithTool(
                  shell, {QStringLiteral("-c"), QStringLiteral("echo fine >&2; exit 0")}),
              std::nullopt);
    // A failure without words is an empty text, not nothing.
    EXPECT_EQ(
        HXAppController::returnTaskOutputWithTool(shell, {QStringLiteral("-c"), QStringLiteral("exit 1")}),
        std::optional<QString>(QString()));
    EXPECT_EQ(HXAppController::returnTaskOutputWithTool(QStringLiteral("/nonexistent/tool"), {}),
              std::nullopt);
}
