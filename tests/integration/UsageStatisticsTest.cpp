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

namespace {

const QString kBundle = QStringLiteral("/Applications/Mendwell.app");
const QString kDriver = kBundle + QStringLiteral("/Contents/MacOS/app-usagestats");
const QString kConsent = QStringLiteral("/Users/anna/Library/Preferences/com.lanternfish.qc.plist");
const QString kDefaults = QStringLiteral("/Users/anna/Library/Preferences/com.lanternfish.Mendwell.plist");
const QString kCache = QStringLiteral("/Users/anna/Library/Caches/Lanternfish/QC/com.lanternfish.Mendwell");
const QString kBrowserRecord = QStringLiteral("/Users/anna/browser.record");
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
        ASSERT_TRUE(
            QFile::copy(QStringLiteral(MENDWELL_TEST_PROGRAMS_DIR "/app-usagestats"), box.hostPath(kDriver)));
        ::chmod(QFile::encodeName(box.hostPath(kDriver)).constData(), 0755);
        ASSERT_TRUE(box.makeFolder(QStringLiteral("/Users/anna/Library/Preferences"), true));
        setServer(server.baseURL());
        box.overlay(server.trustedCertificatesFolder(), QStringLiteral("/etc/ssl/certs"));
        ASSERT_TRUE(
            box.writeProgram(QStringLiteral("/Library/Test/xdg-open"),
                             "#!/bin/sh\nprintf 'open %s\\n' \"$*\" >>" + kBrowserRecord.toUtf8() + "\n"));
        box.overlay(box.hostPath(QStringLiteral("/Library/Test/xdg-open")),
                    QStringLiteral("/usr/bin/xdg-open"));
    }

    void setServer(const QString &address)
    {
        const QString info = box.hostPath(kBundle + QStringLiteral("/Contents/Info.plist"));
        QVariantMap dictionary = PropertyList::readDictionary(info);
        dictionary.insert(QStringLiteral("HXQCServerURL"), address);
        ASSERT_TRUE(PropertyList::writeXmlFile(info, dictionary));
    }

    ProcessResult run(const QString &answer = QString())
    {
        QStringList arguments{kDriver, QStringLiteral("run")};
        if (!answer.isEmpty())
            arguments << answer;
        ProcessResult result = box.runAsUser(arguments, {QStringLiteral("QT_QPA_PLATFORM=offscreen")});
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
        names << (event.value(QStringLiteral("event")).toString() + QLatin1Char(' ') +
                  event.value(QStringLiteral("data")).toString())
                     .trimmed();
    }
    return names;
}

TEST_F(UsageStatisticsTest, TheQuestionComesOnTheSecondRunAndMoreInfoLeavesItOpen)
{
    // The first run asks nothing and logs nothing.
    EXPECT_EQ(run(QStringLiteral("Allow")).out, QByteArray());
    EXPECT_FALSE(box.exists(kConsent));
    EXPECT_FALSE(box.exists(kCache));

    const ProcessResult second = run(QStringLiteral("More Info"));
    EXPECT_EQ(second.out, kQuestion + "buttons: Allow | More Info | Don't Allow\n") << second.err.constData();
    EXPECT_EQ(box.recordLines(kBrowserRecord, 1),
              QStringList{QStringLiteral(
                  "open https://www.lanternfish.example/support/posts/app_analytics_and_usage_data.html")});
    EXPECT_FALSE(plist(kConsent).contains(QStringLiteral("logQC")));

    EXPECT_TRUE(run(QStringLiteral("Allow")).out.startsWith(kQuestion));
    EXPECT_EQ(plist(kConsent), (QVariantMap{{QStringLiteral("logQC"), true}}));
    // The system's version follows the launch within a second: it is written only
    // when the program quits.
    const QString version = plist(kDefaults).value(QStringLiteral("lastOSVersion")).toString();
    EXPECT_TRUE(QRegularExpression(QStringLiteral("^\\d+\\.\\d+\\.\\d+$")).match(version).hasMatch())
        << version.toStdString();
    EXPECT_EQ(eventNames(cachedEvents()),
              (QStringList{QStringLiteral("launch"), QStringLiteral("specs ") + version}));
    EXPECT_TRUE(server.requests().isEmpty());  // third run, nothing sent yet

    // A refusal is final: no more questions and no events.
    QFile::remove(box.hostPath(kConsent));
    QFile::remove(box.hostPath(kCache));
    EXPECT_TRUE(run(QStringLiteral("Don't Allow")).out.startsWith(kQuestion));  // still unanswered
    EXPECT_EQ(plist(kConsent), (QVariantMap{{QStringLiteral("logQC"), false}}));
    EXPECT_EQ(run().out, QByteArray());
    EXPECT_FALSE(box.exists(kCache));
    EXPECT_TRUE(server.requests().isEmpty());

    // The preferences check box writes the answer alone into a new consent file.
    QFile::remove(box.hostPath(kConsent));
    box.runAsUser({kDriver, QStringLiteral("box"), QStringLiteral("on")},
                  {QStringLiteral("QT_QPA_PLATFORM=offscreen")});
    EXPECT_EQ(plist(kConsent), (QVariantMap{{QStringLiteral("logQC"), true}}));
}

TEST_F(UsageStatisticsTest, TheFourthRunUploadsTheEventsAsAMultipartForm)
{
    ASSERT_TRUE(
        box.writeFile(kConsent, PropertyList::toXml(QVariantMap{{QStringLiteral("logQC"), true}}), true));
    setDefault(QStringLiteral("launchCount"), 3);
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
    const QByteArray uid = consent.value(QStringLiteral("uid")).toString().toUtf8();
    EXPECT_TRUE(
        QRegularExpression(QStringLiteral("^[a-zA-Z0-9]{12}$")).match(QString::fromUtf8(uid)).hasMatch());
    EXPECT_LT(
        consent.value(QStringLiteral("uidAssigned")).toDateTime().secsTo(QDateTime::currentDateTimeUtc()),
        120);

    // The whole body, byte for byte: the parts in the form's key order, no closing line.
    const QString version = plist(kDefaults).value(QStringLiteral("lastOSVersion")).toString();
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
    EXPECT_EQ(events[0].toObject().keys(), (QStringList{QStringLiteral("date"), QStringLiteral("event")}));
    EXPECT_EQ(events[0][QStringLiteral("event")].toString(), QStringLiteral("launch"));
    EXPECT_NEAR(events[0][QStringLiteral("date")].toDouble(), QDateTime::currentSecsSinceEpoch(), 120);
    EXPECT_EQ(events[1][QStringLiteral("data")].toString(), version);

    // Sent: an empty cache (written again as the program quits), the submission
    // remembered, the log says so.
    EXPECT_TRUE(box.exists(kCache));
    EXPECT_TRUE(cachedEvents().isEmpty());
    EXPECT_LT(plist(kDefaults)
                  .value(QStringLiteral("lastSubmission"))
                  .toDateTime()
                  .secsTo(QDateTime::currentDateTimeUtc()),
              120);
    EXPECT_TRUE(box.readFile(QStringLiteral("/Users/anna/Library/Logs/Lanternfish/app-usagestats.1.log"))
                    .contains(" - Sending QC log to Lanternfish...\n"));

    // Within the day: no upload. A launch within a minute of the last is not counted
    // twice, and an unchanged system is not reported again.
    run();
    run();
    EXPECT_EQ(server.requests().size(), 1);
    EXPECT_EQ(eventNames(cachedEvents()), QStringList{QStringLiteral("launch")});
}

TEST_F(UsageStatisticsTest, AFailedUploadStillEmptiesTheCacheAndAnOldIdentifierIsReplaced)
{
    const QDateTime now = QDateTime::currentDateTimeUtc();
    ASSERT_TRUE(
        box.writeFile(kConsent,
                      PropertyList::toXml(QVariantMap{{QStringLiteral("logQC"), true},
                                                      {QStringLiteral("uid"), QStringLiteral("oldoldoldold")},
                                                      {QStringLiteral("uidAssigned"), now.addDays(-91)}}),
                      true));
    setDefault(QStringLiteral("lastSubmission"), now.addDays(-2));
    setServer(QStringLiteral("https://127.0.0.1:%1").arg(TestHttpsServer::unusedPort()));
    const ProcessResult failed = run();
    EXPECT_EQ(failed.out, QByteArray("Connection failed - Connection refused\n")) << failed.err.constData();
    EXPECT_TRUE(box.exists(kCache));
    EXPECT_TRUE(cachedEvents().isEmpty());
    EXPECT_LT(plist(kDefaults).value(QStringLiteral("lastSubmission")).toDateTime().secsTo(now), 5);
    const QString uid = plist(kConsent).value(QStringLiteral("uid")).toString();
    EXPECT_NE(uid, QStringLiteral("oldoldoldold"));
    EXPECT_EQ(uid.size(), 12);

    // A young identifier stays.
    setDefault(QStringLiteral("lastSubmission"), now.addDays(-2));
    EXPECT_EQ(run().out, QByteArray("Connection failed - Connection refused\n"));
    EXPECT_EQ(plist(kConsent).value(QStringLiteral("uid")).toString(), uid);
}

}  // namespace
