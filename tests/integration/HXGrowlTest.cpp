// Desktop notices against a real notification server (dunst on Xvfb) on a bus of
// the test's own. The posting side runs as this very test program copied into the
// sandbox's Mendwell.app (so the application name and icon come from the real
// bundle), as the console user, in child mode (MENDWELL_GROWL_CHILD).

#include "system/HXBundle.h"
#include "system/HXNotificationCenter.h"
#include "tests/support/Sandbox.h"
#include "tests/support/TestDesktop.h"
#include "ui/HXGrowl.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QImage>
#include <QProcess>
#include <QTemporaryDir>
#include <QThread>
#include <QTimer>

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <cstdio>
#include <memory>

namespace {

const QString kChildPath = QStringLiteral("/Applications/Mendwell.app/Contents/MacOS/growlchild");

void print(const QString &line)
{
    std::printf("%s\n", qPrintable(line));
    std::fflush(stdout);
}

QString describe(const QVariant &value)
{
    if (value.typeId() == QMetaType::QDateTime)
        return QStringLiteral("date ") + value.toDateTime().toString(Qt::ISODateWithMs);
    if (value.typeId() == QMetaType::QVariantMap)
        return QStringLiteral("run ") + value.toMap().value(QStringLiteral("run")).toString();
    return value.toString();
}

// The posting side. Prints what it did and what came back.
int runChild(const QString &mode)
{
    auto &center = HXNotificationCenter::defaultCenter();
    for (const char *name : {HXGrowl::kClickedNotification, HXGrowl::kTimedOutNotification})
        center.addObserver(QString::fromLatin1(name), [](const HXNotification &notification) {
            print(notification.name + QLatin1Char(' ') +
                  describe(notification.userInfo.value(QStringLiteral("clickContext"))));
            QCoreApplication::exit(0);
        });
    // Only keeps a broken run from hanging forever.
    QTimer::singleShot(120000, [] { QCoreApplication::exit(3); });

    if (mode == QLatin1String("click")) {
        print(QStringLiteral("before ") + QDateTime::currentDateTimeUtc().toString(Qt::ISODateWithMs));
        HXGrowl::postGrowlNotification(QStringLiteral("Sticky notice"), QStringLiteral("Repair complete."));
        print(QStringLiteral("after ") + QDateTime::currentDateTimeUtc().toString(Qt::ISODateWithMs));
        // The user's click: the server's default action on the top notice, repeated
        // until the notice is up.
        auto *clicker = new QTimer(QCoreApplication::instance());
        QObject::connect(clicker, &QTimer::timeout, [] {
            QProcess::execute(QStringLiteral("dunstctl"), {QStringLiteral("action"), QStringLiteral("0")});
        });
        clicker->start(300);
    } else if (mode == QLatin1String("expire")) {
        QImage icon(16, 16, QImage::Format_RGBA8888);
        icon.fill(Qt::red);
        HXGrowl::postGrowlNotification(QStringLiteral("Expiring notice"), QStringLiteral("Repair failed."),
                                       icon, QStringLiteral("HXRepairNotification"),
                                       QVariantMap{{QStringLiteral("run"), QStringLiteral("expiry-test")}});
    } else {
        // "post TITLE": post and leave.
        HXGrowl::postGrowlNotification(mode.section(QLatin1Char(' '), 1), QStringLiteral("Body"));
        print(QStringLiteral("delegate ") +
              (HXGrowl::defaultController().isDelegate() ? QStringLiteral("yes") : QStringLiteral("no")));
        return 0;
    }
    return QCoreApplication::exec();
}

class HXGrowlTest : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        if (Sandbox::unavailableReason().isEmpty())
            desktop = new TestDesktop;
    }

    static void TearDownTestSuite()
    {
        delete desktop;
        desktop = nullptr;
    }

    void SetUp() override
    {
        SKIP_WITHOUT_SANDBOX();
        ASSERT_TRUE(desktop->isRunning());
        const QString child = box.hostPath(kChildPath);
        ASSERT_TRUE(QFile::copy(QStringLiteral("/proc/self/exe"), child));
        ::chmod(QFile::encodeName(child).constData(), 0755);
    }

    QStringList runChild(const QString &mode) const
    {
        const ProcessResult result = box.runAsUser(
            {kChildPath}, {desktop->bus.environmentEntry(), QStringLiteral("MENDWELL_GROWL_CHILD=") + mode});
        EXPECT_EQ(result.exitCode, 0) << result.err.constData();
        return QString::fromUtf8(result.out).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    }

    // The server's record of the notice with SUMMARY, waiting for its script.
    static QString shownNotice(const QString &summary)
    {
        for (int attempt = 0; attempt < 600; ++attempt) {
            for (const QString &notice : desktop->server->shownNotices())
                if (notice.contains(QStringLiteral("\tsummary=") + summary + QLatin1Char('\t')))
                    return notice;
            QThread::msleep(50);
        }
        return QString();
    }

    static TestDesktop *desktop;
    Sandbox box;
};

TestDesktop *HXGrowlTest::desktop = nullptr;

TEST_F(HXGrowlTest, ShortFormShowsTheApplicationAndAClickReturnsThePostingDate)
{
    const QStringList out = runChild(QStringLiteral("click"));
    ASSERT_EQ(out.size(), 3) << out.join(QLatin1Char('\n')).toStdString();
    ASSERT_TRUE(out.at(2).startsWith(QLatin1String("HXGrowlAlertClicked date "))) << out.at(2).toStdString();
    const QDateTime before = QDateTime::fromString(out.at(0).section(QLatin1Char(' '), 1), Qt::ISODateWithMs);
    const QDateTime after = QDateTime::fromString(out.at(1).section(QLatin1Char(' '), 1), Qt::ISODateWithMs);
    const QDateTime context =
        QDateTime::fromString(out.at(2).section(QLatin1Char(' '), 2), Qt::ISODateWithMs);
    EXPECT_LE(before, context);
    EXPECT_LE(context, after);

    // No display name in the bundle: the executable's name; no icon given: the
    // bundle's own.
    EXPECT_EQ(shownNotice(QStringLiteral("Sticky notice")),
              QStringLiteral("app=Mendwell\tsummary=Sticky notice\tbody=Repair complete.\t"
                             "icon=/Applications/Mendwell.app/Contents/Resources/Mendwell.png\t"
                             "category=HXInfoNotification"));
}

TEST_F(HXGrowlTest, AnExpiredNoticeReportsItsClickContext)
{
    const QStringList out = runChild(QStringLiteral("expire"));
    EXPECT_EQ(out, QStringList{QStringLiteral("HXGrowlAlertTimedOut run expiry-test")});
    // The given image goes as pixels, so no icon file is named.
    EXPECT_EQ(shownNotice(QStringLiteral("Expiring notice")),
              QStringLiteral("app=Mendwell\tsummary=Expiring notice\tbody=Repair failed.\ticon=\t"
                             "category=HXRepairNotification"));
}

TEST_F(HXGrowlTest, TheSuiteWideSwitchSuppressesNoticesAndIsReadOnEveryPost)
{
    const QString prefs = QStringLiteral("/Users/anna/Library/Preferences/com.lanternfish.global.plist");
    ASSERT_TRUE(box.writeFile(prefs,
                              "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict>"
                              "<key>growlDisabled</key><true/></dict></plist>\n",
                              true));
    EXPECT_EQ(runChild(QStringLiteral("post Suppressed notice")), QStringList{QStringLiteral("delegate no")});

    ASSERT_TRUE(box.writeFile(prefs,
                              "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict>"
                              "<key>growlDisabled</key><false/></dict></plist>\n",
                              true));
    EXPECT_EQ(runChild(QStringLiteral("post Allowed notice")), QStringList{QStringLiteral("delegate yes")});
    // The server shows notices in the order they came; once the second is up the
    // first would have been too.
    EXPECT_FALSE(shownNotice(QStringLiteral("Allowed notice")).isEmpty());
    for (const QString &notice : desktop->server->shownNotices())
        EXPECT_FALSE(notice.contains(QLatin1String("Suppressed"))) << notice.toStdString();
}

TEST(HXGrowlNames, DisplayNameWinsOverTheExecutableOnlyWhenItIsNonEmptyText)
{
    QTemporaryDir dir;
    const auto bundleWith = [&dir](const QString &name, const QByteArray &entries) {
        const QString path = dir.filePath(name);
        QDir().mkpath(path + QStringLiteral("/Contents"));
        QFile info(path + QStringLiteral("/Contents/Info.plist"));
        info.open(QIODevice::WriteOnly);
        info.write("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict>"
                   "<key>CFBundleExecutable</key><string>Tool</string>" +
                   entries + "</dict></plist>\n");
        info.close();
        return HXBundle(path);
    };
    EXPECT_EQ(HXGrowl::applicationNameForGrowl(bundleWith(QStringLiteral("A.app"), "")),
              QStringLiteral("Tool"));
    EXPECT_EQ(HXGrowl::applicationNameForGrowl(bundleWith(
                  QStringLiteral("B.app"), "<key>CFBundleDisplayName</key><string>Shown</string>")),
              QStringLiteral("Shown"));
    EXPECT_EQ(HXGrowl::applicationNameForGrowl(
                  bundleWith(QStringLiteral("C.app"), "<key>CFBundleDisplayName</key><string></string>")),
              QStringLiteral("Tool"));
    EXPECT_EQ(HXGrowl::applicationNameForGrowl(
                  bundleWith(QStringLiteral("D.app"), "<key>CFBundleDisplayName</key><integer>7</integer>")),
              QStringLiteral("Tool"));
    // An icon named but not shipped counts as none.
    EXPECT_EQ(bundleWith(QStringLiteral("E.app"), "<key>CFBundleIconFile</key><string>Missing.png</string>")
                  .iconPath(),
              QString());
}

}  // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    const QString childMode = qEnvironmentVariable("MENDWELL_GROWL_CHILD");
    if (!childMode.isEmpty())
        return runChild(childMode);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
