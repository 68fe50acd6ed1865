// Desktop notices against a real notification server (dunst on Xvfb) on a bus of
// the test's own. The posting side runs as this very test program copied into the
// sandbox's Mendwell.app (so the application name and icon come from the real
// bundle), as the console user, in child mode (MENDWELL_GROWL_CHILD).

#include "system/HXBundle.h"
#include "system/HXNotificationCenter.h"
#include "system/PropertyList.h"
#include "tests/support/Sandbox.h"
#include "tests/support/TestDesktop.h"
#include "tests/support/TestFiles.h"
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

#include <cstdio>
#include <memory>

using namespace Qt::Literals::StringLiterals;

namespace {

const QString kChildPath = u"/Applications/Mendwell.app/Contents/MacOS/growlchild"_s;

void print(const QString &line)
{
    std::printf("%s\n", qPrintable(line));
    std::fflush(stdout);
}

QString describe(const QVariant &value)
{
    if (value.typeId() == QMetaType::QDateTime)
        return u"date "_s + value.toDateTime().toString(Qt::ISODateWithMs);
    if (value.typeId() == QMetaType::QVariantMap)
        return u"run "_s + value.toMap().value(u"run"_s).toString();
    return value.toString();
}

// The posting side. Prints what it did and what came back.
int runChild(const QString &mode)
{
    auto &center = HXNotificationCenter::defaultCenter();
    for (const char *name : {HXGrowl::kClickedNotification, HXGrowl::kTimedOutNotification})
        center.addObserver(QString::fromLatin1(name), [](const HXNotification &notification) {
            print(notification.name + u' ' + describe(notification.userInfo.value(u"clickContext"_s)));
            QCoreApplication::exit(0);
        });
    // Only keeps a broken run from hanging forever.
    QTimer::singleShot(120000, [] { QCoreApplication::exit(3); });

    if (mode == u"click"_s) {
        print(u"before "_s + QDateTime::currentDateTimeUtc().toString(Qt::ISODateWithMs));
        HXGrowl::postGrowlNotification(u"Sticky notice"_s, u"Repair complete."_s);
        print(u"after "_s + QDateTime::currentDateTimeUtc().toString(Qt::ISODateWithMs));
        // The user's click: the server's default action on the top notice, repeated
        // until the notice is up.
        auto *clicker = new QTimer(QCoreApplication::instance());
        QObject::connect(clicker, &QTimer::timeout, [] {
            QProcess::execute(u"dunstctl"_s, {u"action"_s, u"0"_s});
        });
        clicker->start(300);
    } else if (mode == u"expire"_s) {
        QImage icon(16, 16, QImage::Format_RGBA8888);
        icon.fill(Qt::red);
        HXGrowl::postGrowlNotification(u"Expiring notice"_s, u"Repair failed."_s, icon,
                                       u"HXRepairNotification"_s, QVariantMap{{u"run"_s, u"expiry-test"_s}});
    } else {
        // "post TITLE": post and leave.
        HXGrowl::postGrowlNotification(mode.section(u' ', 1), u"Body"_s);
        print(u"delegate "_s + (HXGrowl::defaultController().isDelegate() ? u"yes"_s : u"no"_s));
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
        ASSERT_TRUE(QFile::copy(u"/proc/self/exe"_s, child));
    }

    QStringList runChild(const QString &mode) const
    {
        const ProcessResult result =
            box.runAsUser({kChildPath}, {desktop->bus.environmentEntry(), u"MENDWELL_GROWL_CHILD="_s + mode});
        EXPECT_EQ(result.exitCode, 0) << result.err.constData();
        return QString::fromUtf8(result.out).split(u'\n', Qt::SkipEmptyParts);
    }

    // The server's record of the notice with SUMMARY, waiting for its script.
    static QString shownNotice(const QString &summary)
    {
        for (int attempt = 0; attempt < 600; ++attempt) {
            for (const QString &notice : desktop->server->shownNotices())
                if (notice.contains(u"\tsummary="_s + summary + u'\t'))
                    return notice;
            QThread::msleep(50);
        }
        return QString();
    }

    static inline TestDesktop *desktop = nullptr;
    Sandbox box;
};

TEST_F(HXGrowlTest, ShortFormShowsTheApplicationAndAClickReturnsThePostingDate)
{
    const QStringList out = runChild(u"click"_s);
    ASSERT_EQ(out.size(), 3) << out.join(u'\n').toStdString();
    ASSERT_TRUE(out.at(2).startsWith(u"HXGrowlAlertClicked date "_s)) << out.at(2).toStdString();
    const QDateTime before = QDateTime::fromString(out.at(0).section(u' ', 1), Qt::ISODateWithMs);
    const QDateTime after = QDateTime::fromString(out.at(1).section(u' ', 1), Qt::ISODateWithMs);
    const QDateTime context = QDateTime::fromString(out.at(2).section(u' ', 2), Qt::ISODateWithMs);
    EXPECT_LE(before, context);
    EXPECT_LE(context, after);

    // No display name in the bundle: the executable's name; no icon given: the
    // bundle's own.
    EXPECT_EQ(shownNotice(u"Sticky notice"_s),
              QStringLiteral("app=Mendwell\tsummary=Sticky notice\tbody=Repair complete.\t"
                             "icon=/Applications/Mendwell.app/Contents/Resources/Mendwell.png\t"
                             "category=HXInfoNotification"));
}

TEST_F(HXGrowlTest, AnExpiredNoticeReportsItsClickContext)
{
    const QStringList out = runChild(u"expire"_s);
    EXPECT_EQ(out, QStringList{u"HXGrowlAlertTimedOut run expiry-test"_s});
    // The given image goes as pixels, so no icon file is named.
    EXPECT_EQ(shownNotice(u"Expiring notice"_s),
              QStringLiteral("app=Mendwell\tsummary=Expiring notice\tbody=Repair failed.\ticon=\t"
                             "category=HXRepairNotification"));
}

TEST_F(HXGrowlTest, TheSuiteWideSwitchSuppressesNoticesAndIsReadOnEveryPost)
{
    const QString prefs = u"/Users/anna/Library/Preferences/com.lanternfish.global.plist"_s;
    for (const bool disabled : {true, false}) {
        ASSERT_TRUE(
            box.writeFile(prefs, PropertyList::toXml(QVariantMap{{u"growlDisabled"_s, disabled}}), true));
        EXPECT_EQ(runChild(disabled ? u"post Suppressed notice"_s : u"post Allowed notice"_s),
                  QStringList{disabled ? u"delegate no"_s : u"delegate yes"_s});
    }
    // The server shows notices in the order they came; once the second is up the
    // first would have been too.
    EXPECT_FALSE(shownNotice(u"Allowed notice"_s).isEmpty());
    for (const QString &notice : desktop->server->shownNotices())
        EXPECT_FALSE(notice.contains(u"Suppressed"_s)) << notice.toStdString();
}

TEST(HXGrowlNames, DisplayNameWinsOverTheExecutableOnlyWhenItIsNonEmptyText)
{
    QTemporaryDir dir;
    const auto bundleWith = [&dir](const QString &name, const QByteArray &entries) {
        disk::write(dir.filePath(name) + u"/Contents/Info.plist"_s,
                    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict>"
                    "<key>CFBundleExecutable</key><string>Tool</string>" +
                        entries + "</dict></plist>\n");
        return HXBundle(dir.filePath(name));
    };
    EXPECT_EQ(HXGrowl::applicationNameForGrowl(bundleWith(u"A.app"_s, "")), u"Tool"_s);
    EXPECT_EQ(HXGrowl::applicationNameForGrowl(
                  bundleWith(u"B.app"_s, "<key>CFBundleDisplayName</key><string>Shown</string>")),
              u"Shown"_s);
    EXPECT_EQ(HXGrowl::applicationNameForGrowl(
                  bundleWith(u"C.app"_s, "<key>CFBundleDisplayName</key><string></string>")),
              u"Tool"_s);
    EXPECT_EQ(HXGrowl::applicationNameForGrowl(
                  bundleWith(u"D.app"_s, "<key>CFBundleDisplayName</key><integer>7</integer>")),
              u"Tool"_s);
    // An icon named but not shipped counts as none.
    EXPECT_EQ(bundleWith(u"E.app"_s, "<key>CFBundleIconFile</key><string>Missing.png</string>").iconPath(),
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
