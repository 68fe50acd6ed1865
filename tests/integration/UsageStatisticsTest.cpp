// Usage statistics over several application runs, in the sandbox as anna: the
// consent question, the events in the cache file and their upload to a local
// HTTPS server (tests/support/TestHttpsServer.h) whose certificate is the only
// one the sandbox trusts. A stand-in for the desktop's opener records the pages
// it is asked to show.

#include "system/PropertyList.h"
#include "tests/support/Sandbox.h"
#include "tests/support/TestFiles.h"
#include "tests/support/TestHttpsServer.h"

#include <QDateTime>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>

#include <gtest/gtest.h>

#include <sys/stat.h>

using namespace Qt::Literals::StringLiterals;

namespace {

const QString kBundle = u"/Applications/Mendwell.app"_s;
const QString kDriver = kBundle + u"/Contents/MacOS/app-usagestats"_s;
const QString kConsent = u"/Users/anna/Library/Preferences/com.lanternfish.qc.plist"_s;
const QString kDefaults = u"/Users/anna/Library/Preferences/com.lanternfish.Mendwell.plist"_s;
const QString kCache = u"/Users/anna/Library/Caches/Lanternfish/QC/com.lanternfish.Mendwell"_s;
const QString kBrowserRecord = u"/Users/anna/browser.record"_s;
const QByteArray kQuestion =
    "asked: Help improve Lanternfish software by submitting analytics and usage data\n"
    "informative: This information helps us find problems and improve our software. "
    "It is anonymous and cannot be used to identify you.\n";

class UsageStatisticsTest : public ::testing::Test {
protected:
    // One server for the whole program, started before any process runs.
    static void SetUpTestSuite() { sharedServer = new TestHttpsServer(); }
    static void TearDownTestSuite()
    {
        delete sharedServer;
        sharedServer = nullptr;
    }

    void SetUp() override
    {
        SKIP_WITHOUT_SANDBOX();
        ASSERT_TRUE(server.isListening()) << server.error().toStdString();
        server.clearRequests();
        ASSERT_EQ(box.installInBundle(u"app-usagestats"_s), kDriver);
        ASSERT_TRUE(box.makeFolder(u"/Users/anna/Library/Preferences"_s, true));
        setServer(server.baseURL());
        box.overlay(server.trustedCertificatesFolder(), u"/etc/ssl/certs"_s);
        ASSERT_TRUE(box.writeProgram(u"/Library/Test/xdg-open"_s, "#!/bin/sh\nprintf 'open %s\\n' \"$*\" >>" +
                                                                      kBrowserRecord.toUtf8() + "\n"));
        box.overlay(box.hostPath(u"/Library/Test/xdg-open"_s), u"/usr/bin/xdg-open"_s);
    }

    void setServer(const QString &address)
    {
        const QString info = box.hostPath(kBundle + u"/Contents/Info.plist"_s);
        QVariantMap dictionary = PropertyList::readDictionary(info);
        dictionary.insert(u"HXQCServerURL"_s, address);
        ASSERT_TRUE(PropertyList::writeXmlFile(info, dictionary));
    }

    ProcessResult run(const QString &answer = QString())
    {
        QStringList arguments{kDriver, u"run"_s};
        if (!answer.isEmpty())
            arguments << answer;
        ProcessResult result = box.runAsUser(arguments, {u"QT_QPA_PLATFORM=offscreen"_s});
        EXPECT_EQ(result.exitCode, 0) << result.err.constData();  // sanitizers' findings included
        return result;
    }

    QVariantMap plist(const QString &path) const { return PropertyList::readDictionary(box.hostPath(path)); }
    QVariantList cachedEvents() const { return PropertyList::readFile(box.hostPath(kCache)).toList(); }

    void setDefault(const QString &key, const QVariant &value)
    {
        QVariantMap defaults = plist(kDefaults);
        defaults.insert(key, value);
        ASSERT_TRUE(box.writeFile(kDefaults, PropertyList::toXml(defaults), true));
    }

    static inline TestHttpsServer *sharedServer = nullptr;
    TestHttpsServer &server = *sharedServer;
    Sandbox box;
};

// Events as the cache holds them: "name" or "name data".
QStringList eventNames(const QVariantList &events)
{
    QStringList names;
    for (const QVariant &entry : events) {
        const QVariantMap event = entry.toMap();
        names << (event.value(u"event"_s).toString() + u' ' + event.value(u"data"_s).toString()).trimmed();
    }
    return names;
}

TEST_F(UsageStatisticsTest, TheQuestionComesOnTheSecondRunAndMoreInfoLeavesItOpen)
{
    // The first run asks nothing and logs nothing.
    EXPECT_EQ(run(u"Allow"_s).out, QByteArray());
    EXPECT_FALSE(box.exists(kConsent));
    EXPECT_FALSE(box.exists(kCache));

    const ProcessResult second = run(u"More Info"_s);
    EXPECT_EQ(second.out, kQuestion + "buttons: Allow | More Info | Don't Allow\n") << second.err.constData();
    EXPECT_EQ(box.recordLines(kBrowserRecord, 1),
              QStringList{QStringLiteral(
                  "open https://www.lanternfish.example/support/posts/app_analytics_and_usage_data.html")});
    EXPECT_FALSE(plist(kConsent).contains(u"logQC"_s));

    EXPECT_TRUE(run(u"Allow"_s).out.startsWith(kQuestion));
    EXPECT_EQ(plist(kConsent), (QVariantMap{{u"logQC"_s, true}}));
    // The system's version follows the launch within a second: it is written only
    // when the program quits.
    const QString version = plist(kDefaults).value(u"lastOSVersion"_s).toString();
    EXPECT_TRUE(QRegularExpression(u"^\\d+\\.\\d+\\.\\d+$"_s).match(version).hasMatch())
        << version.toStdString();
    EXPECT_EQ(eventNames(cachedEvents()), (QStringList{u"launch"_s, u"specs "_s + version}));
    EXPECT_TRUE(server.requests().isEmpty());  // third run, nothing sent yet

    // A refusal is final: no more questions and no events.
    QFile::remove(box.hostPath(kConsent));
    QFile::remove(box.hostPath(kCache));
    EXPECT_TRUE(run(u"Don't Allow"_s).out.startsWith(kQuestion));  // still unanswered
    EXPECT_EQ(plist(kConsent), (QVariantMap{{u"logQC"_s, false}}));
    EXPECT_EQ(run().out, QByteArray());
    EXPECT_FALSE(box.exists(kCache));
    EXPECT_TRUE(server.requests().isEmpty());

    // The preferences check box writes the answer alone into a new consent file.
    QFile::remove(box.hostPath(kConsent));
    box.runAsUser({kDriver, u"box"_s, u"on"_s}, {u"QT_QPA_PLATFORM=offscreen"_s});
    EXPECT_EQ(plist(kConsent), (QVariantMap{{u"logQC"_s, true}}));
}

TEST_F(UsageStatisticsTest, TheFourthRunUploadsTheEventsAsAMultipartForm)
{
    ASSERT_TRUE(box.writeFile(kConsent, PropertyList::toXml(QVariantMap{{u"logQC"_s, true}}), true));
    setDefault(u"launchCount"_s, 3);
    const ProcessResult fourth = run();
    EXPECT_EQ(fourth.out, QByteArray()) << fourth.err.constData();
    ASSERT_EQ(server.requests().size(), 1);
    const RecordedRequest request = server.requests().first();
    EXPECT_EQ(request.requestLine, QByteArray("POST /appdata/qc/qc.php HTTP/1.1"));
    const QByteArray type = request.header("Content-Type");
    ASSERT_TRUE(type.startsWith("multipart/form-data; boundary=")) << type.constData();
    const QByteArray boundary = type.mid(type.indexOf('=') + 1);
    EXPECT_FALSE(boundary.isEmpty());

    // The new identifier, kept in the consent file.
    const QVariantMap consent = plist(kConsent);
    const QByteArray uid = consent.value(u"uid"_s).toString().toUtf8();
    EXPECT_TRUE(QRegularExpression(u"^[a-zA-Z0-9]{12}$"_s).match(QString::fromUtf8(uid)).hasMatch());
    EXPECT_LT(consent.value(u"uidAssigned"_s).toDateTime().secsTo(QDateTime::currentDateTimeUtc()), 120);

    // The whole body, byte for byte: the parts in the form's key order, no closing line.
    const QString version = plist(kDefaults).value(u"lastOSVersion"_s).toString();
    const qsizetype eventsStart = request.body.indexOf("name=\"events\"\r\n\r\n") + 17;
    const QByteArray json =
        request.body.mid(eventsStart, request.body.indexOf("\r\n", eventsStart) - eventsStart);
    const auto part = [&](const char *name, const QByteArray &value) {
        return "--" + boundary + "\r\nContent-Disposition: form-data; name=\"" + name + "\"\r\n\r\n" + value +
               "\r\n";
    };
    EXPECT_EQ(request.body, part("app", "com.lanternfish.Mendwell") + part("events", json) +
                                part("uid", uid) + part("version", "100"));
    // Compact JSON of the launch and the specs events.
    const QJsonArray events = QJsonDocument::fromJson(json).array();
    ASSERT_EQ(events.size(), 2) << json.constData();
    EXPECT_EQ(json, QJsonDocument(events).toJson(QJsonDocument::Compact));
    EXPECT_EQ(events[0].toObject().keys(), (QStringList{u"date"_s, u"event"_s}));
    EXPECT_EQ(events[0][u"event"_s].toString(), u"launch"_s);
    EXPECT_NEAR(events[0][u"date"_s].toDouble(), QDateTime::currentSecsSinceEpoch(), 120);
    EXPECT_EQ(events[1][u"data"_s].toString(), version);

    // Sent: an empty cache (written again as the program quits), the submission
    // remembered, the log says so.
    EXPECT_TRUE(box.exists(kCache));
    EXPECT_TRUE(cachedEvents().isEmpty());
    EXPECT_LT(
        plist(kDefaults).value(u"lastSubmission"_s).toDateTime().secsTo(QDateTime::currentDateTimeUtc()),
        120);
    EXPECT_TRUE(box.readFile(u"/Users/anna/Library/Logs/Lanternfish/app-usagestats.1.log"_s)
                    .contains(" - Sending QC log to Lanternfish...\n"));

    // Within the day: no upload. A launch within a minute of the last is not counted
    // twice, and an unchanged system is not reported again.
    run();
    run();
    EXPECT_EQ(server.requests().size(), 1);
    EXPECT_EQ(eventNames(cachedEvents()), QStringList{u"launch"_s});
}

TEST_F(UsageStatisticsTest, AFailedUploadStillEmptiesTheCacheAndAnOldIdentifierIsReplaced)
{
    const QDateTime now = QDateTime::currentDateTimeUtc();
    ASSERT_TRUE(box.writeFile(kConsent,
                              PropertyList::toXml(QVariantMap{{u"logQC"_s, true},
                                                              {u"uid"_s, u"oldoldoldold"_s},
                                                              {u"uidAssigned"_s, now.addDays(-91)}}),
                              true));
    setDefault(u"lastSubmission"_s, now.addDays(-2));
    setServer(u"https://127.0.0.1:%1"_s.arg(TestHttpsServer::unusedPort()));
    const ProcessResult failed = run();
    EXPECT_EQ(failed.out, QByteArray("Connection failed - Connection refused\n")) << failed.err.constData();
    EXPECT_TRUE(box.exists(kCache));
    EXPECT_TRUE(cachedEvents().isEmpty());
    EXPECT_LT(plist(kDefaults).value(u"lastSubmission"_s).toDateTime().secsTo(now), 5);
    const QString uid = plist(kConsent).value(u"uid"_s).toString();
    EXPECT_NE(uid, u"oldoldoldold"_s);
    EXPECT_EQ(uid.size(), 12);

    // A young identifier stays.
    setDefault(u"lastSubmission"_s, now.addDays(-2));
    EXPECT_EQ(run().out, QByteArray("Connection failed - Connection refused\n"));
    EXPECT_EQ(plist(kConsent).value(u"uid"_s).toString(), uid);
}

}  // namespace
