// returnTaskOutputWithTool: a tool's complaints, only when it fails.

#include "app/HXAppController.h"

#include <gtest/gtest.h>

using namespace Qt::Literals::StringLiterals;

TEST(ToolOutputTest, OnlyAFailingToolsErrorOutputComesBack)
{
    const QString shell = u"/bin/sh"_s;
    // Standard output is never read, even from a failing tool.
    EXPECT_EQ(HXAppController::returnTaskOutputWithTool(
                  shell, {u"-c"_s, u"echo out; printf 'bad \\303\\244\\n' >&2; exit 3"_s}),
              std::optional<QString>(QString::fromUtf8("bad \xc3\xa4\n")));
    EXPECT_EQ(HXAppController::returnTaskOutputWithTool(shell, {u"-c"_s, u"echo fine >&2; exit 0"_s}),
              std::nullopt);
    // A failure without words is an empty text, not nothing.
    EXPECT_EQ(HXAppController::returnTaskOutputWithTool(shell, {u"-c"_s, u"exit 1"_s}),
              std::optional<QString>(QString()));
    EXPECT_EQ(HXAppController::returnTaskOutputWithTool(u"/nonexistent/tool"_s, {}), std::nullopt);
}
