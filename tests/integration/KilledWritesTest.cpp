// Files Mendwell rewrites while it may be killed (settings, launch stamps, run
// records, Trash records, the machine-wide preference): a writer is killed at
// random moments a thousand times per kind (tests/programs/app-killedwrites.cpp),
// and after every kill the file must read back whole and no older than before,
// and the next write must be read.

#include "tests/support/Sandbox.h"

#include <gtest/gtest.h>

#include <QRegularExpression>

#include <cstdio>

using namespace Qt::Literals::StringLiterals;

namespace {

const QString kDriver = u"/Applications/Mendwell.app/Contents/MacOS/app-killedwrites"_s;
constexpr int kKills = 1000;

struct Kind {
    const char *name;
    bool asRoot;
};

class KilledWritesTest : public ::testing::TestWithParam<Kind> {};

}  // namespace

TEST_P(KilledWritesTest, EveryFileHoldsAWholeVersionAfterEachKill)
{
    SKIP_WITHOUT_SANDBOX();
    Sandbox box;
    ASSERT_EQ(box.installInBundle(u"app-killedwrites"_s), kDriver);
    ASSERT_TRUE(box.makeFolder(u"/Users/anna/Library/Preferences"_s, true));
    ASSERT_TRUE(box.makeFolder(u"/Users/anna/Library/Logs"_s, true));
    ASSERT_TRUE(box.makeFolder(u"/Users/anna/KilledWrites"_s, true));
    ASSERT_TRUE(box.makeFolder(u"/Library/Preferences"_s));
    const QStringList arguments{kDriver, QString::fromLatin1(GetParam().name), QString::number(kKills)};
    const ProcessResult result = GetParam().asRoot ? box.runAsRoot(arguments) : box.runAsUser(arguments);
    std::printf("%s", result.out.constData());
    const std::string output = result.out.toStdString() + result.err.toStdString();
    ASSERT_EQ(result.exitCode, 0) << output;

    const QRegularExpressionMatch figures =
        QRegularExpression(
            u"kills=(\\d+) damaged=(\\d+) older=(\\d+) leftovers=\\d+ orphans=\\d+ next=(\\w+)"_s)
            .match(QString::fromUtf8(result.out));
    ASSERT_TRUE(figures.hasMatch()) << output;
    EXPECT_EQ(figures.captured(1).toInt(), kKills);
    EXPECT_EQ(figures.captured(2), u"0"_s) << output;
    EXPECT_EQ(figures.captured(3), u"0"_s) << output;
    EXPECT_EQ(figures.captured(4), u"ok"_s) << output;
}

INSTANTIATE_TEST_SUITE_P(Kinds, KilledWritesTest,
                         ::testing::Values(Kind{"settings", false}, Kind{"stamps", false},
                                           Kind{"records", true}, Kind{"trash", true}, Kind{"machine", true}),
                         [](const ::testing::TestParamInfo<Kind> &info) {
                             return std::string(info.param.name);
                         });
