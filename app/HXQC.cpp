#include "app/HXQC.h"

#include "app/HXOSDetect.h"
#include "diagnostics/HXLog.h"
#include "system/HXBundle.h"
#include "system/HXFormat.h"
#include "system/HXLocalPaths.h"
#include "system/HXPath.h"
#include "system/HXSerialQueue.h"
#include "system/HXUserDefaults.h"
#include "system/HXWorkspace.h"
#include "system/PropertyList.h"
#include "ui/HXAlert.h"

#include <QAbstractButton>
#include <QCoreApplication>
#include <QDir>
#include <QEventLoop>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QRandomGenerator>
#include <QTimer>

#include <atomic>

#include <unistd.h>

namespace {

const QString kLogQC = QStringLiteral("logQC");
const QString kUid = QStringLiteral("uid");
const QString kUidAssigned = QStringLiteral("uidAssigned");
const QString kLaunchCount = QStringLiteral("launchCount");
const QString kLastSubmission = QStringLiteral("lastSubmission");
const QString kLastOSVersion = QStringLiteral("lastOSVersion");

constexpr qint64 kUploadInterval = 86400;        // one day
constexpr qint64 kIdentifierLifetime = 7776000;  // 90 days
constexpr qint64 kLaunchGuard = 60;              // seconds between counted launches
constexpr qint64 kCacheWriteInterval = 1000;     // milliseconds
constexpr int kTransferTimeout = 60000;          // milliseconds without progress

// The alphabet as the suite has always drawn identifiers from it ("XZY" included).
constexpr char kAlphabet[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXZY0123456789";

qint64 secondsSince1970()
{
    return QDateTime::currentSecsSinceEpoch();
}

QVariantMap readConsent()
{
    return PropertyList::readDictionary(HXQC::consentFilePath());
}

bool writeConsent(const QVariantMap &consent)
{
    const QString path = HXQC::consentFilePath();
    QDir().mkpath(HXPath::deletingLastComponent(path));
    return PropertyList::writeXmlFile(path, consent);
}

QString bundleIdentifier()
{
    return HXBundle::mainBundle().bundleIdentifier();
}

// Like the process's globally unique string: unique across machines and processes.
QString globallyUniqueString()
{
    static std::atomic<quint64> sequence{0};
    return QStringLiteral("%1-%2-%3")
        .arg(HXLocalPaths::uuid())
        .arg(::getpid())
        .arg(sequence.fetch_add(1) + 1, 16, 16, QLatin1Char('0'))
        .toUpper();
}

}  // namespace

HXQC &HXQC::sharedController()
{
    // Created once, thread-safely, and never freed.
    static HXQC *const instance = new HXQC();
    return *instance;
}

HXQC::HXQC() : m_opQueue(std::make_unique<HXSerialQueue>())
{
    if (!bundleIdentifier().isEmpty()) {
        const QVariant stored = PropertyList::readFile(cacheFilePath());
        if (stored.typeId() == QMetaType::QVariantList)
            m_cache = stored.toList();
    }
    if (QCoreApplication *application = QCoreApplication::instance())
        m_willTerminateObservation = QObject::connect(application, &QCoreApplication::aboutToQuit,
                                                      application, [this] { willTerminate(); });
    if (HXUserDefaults::isNumberEqualTo(readConsent().value(kLogQC), 1))
        m_shouldLog = true;
    HXUserDefaults &defaults = HXUserDefaults::standardUserDefaults();
    defaults.setInteger(defaults.integerForKey(kLaunchCount) + 1, kLaunchCount);
}

QString HXQC::consentFilePath()
{
    return HXUserDefaults::pathForDomain(QStringLiteral("com.lanternfish.qc"),
                                         HXUserDefaults::ownPreferencesFolder());
}

QString HXQC::cacheFilePath()
{
    const QString folder = HXPath::appendingComponent(
        HXLocalPaths::searchPathEntry(HXDirectory::Caches, HXLocalPaths::ownHomeDirectory()),
        QStringLiteral("Lanternfish/QC"));
    return HXFormat(u"%@/%@", folder, bundleIdentifier());
}

QUrl HXQC::uploadURL()
{
    const QString server =
        HXBundle::mainBundle().objectForInfoDictionaryKey(QStringLiteral("HXQCServerURL")).toString();
    return QUrl(server + QStringLiteral("/appdata/qc/qc.php"), QUrl::StrictMode);
}

QString HXQC::informationPageAddress()
{
    return HXBundle::mainBundle().objectForInfoDictionaryKey(QStringLiteral("HXSuiteHomeURL")).toString() +
           QStringLiteral("/support/posts/app_analytics_and_usage_data.html");
}

void HXQC::loadQC(QWidget *parentWindow)
{
    const QVariantMap consent = readConsent();
    if (consent.contains(kLogQC)) {
        m_shouldLog = HXUserDefaults::boolFromValue(consent.value(kLogQC));
    } else {
        // The question is first put on the second run.
        if (HXUserDefaults::standardUserDefaults().integerForKey(kLaunchCount) < 2)
            return;
        const qint64 answer = HXAlert::alertSheetWithMessageText(
            QStringLiteral("Help improve Lanternfish software by submitting analytics and usage data"),
            QStringLiteral("Allow"), QStringLiteral("More Info"), QStringLiteral("Don't Allow"),
            QStringLiteral("This information helps us find problems and improve our software. It is "
                           "anonymous and cannot be used to identify you."),
            parentWindow, true);
        if (answer == HXAlert::kOtherReturn)
            setQCLogging(false);
        else if (answer == HXAlert::kDefaultReturn)
            setQCLogging(true);
        else
            HXWorkspace::openURL(informationPageAddress());  // asked again next run
    }
    if (m_shouldLog) {
        logLoadEvent();
        logSystemSpecsEvent();
    }
    if (cache().isEmpty())
        return;
    const std::optional<QDateTime> submitted = lastSubmission();
    const bool dayPassed = submitted && submitted->secsTo(QDateTime::currentDateTimeUtc()) > kUploadInterval;
    const bool firstUploadDue =
        !submitted && HXUserDefaults::standardUserDefaults().integerForKey(kLaunchCount) >= 4;
    if (dayPassed || firstUploadDue)
        enqueue([this] { uploadData(); });
}

void HXQC::enqueue(std::function<void()> operation)
{
    // After will-terminate there is no queue, and nothing more is queued.
    std::lock_guard lock(m_queueMutex);
    if (m_opQueue)
        m_opQueue->addOperation(std::move(operation));
}

std::optional<QDateTime> HXQC::lastSubmission() const
{
    const QVariant value = HXUserDefaults::standardUserDefaults().objectForKey(kLastSubmission);
    if (value.typeId() != QMetaType::QDateTime || !value.toDateTime().isValid())
        return std::nullopt;
    return value.toDateTime();
}

void HXQC::logQCEvent(const std::optional<QVariantMap> &event)
{
    if (!event)
        return;
    bool writeNow = false;
    {
        std::lock_guard lock(m_cacheMutex);
        m_cache.append(*event);
        writeNow = !m_lastCacheWrite ||
                   m_lastCacheWrite->msecsTo(QDateTime::currentDateTimeUtc()) > kCacheWriteInterval;
    }
    // Otherwise the event waits in memory for the next write.
    if (writeNow)
        writeCache();
}

void HXQC::logLoadEvent()
{
    const qint64 now = secondsSince1970();
    for (const QVariant &entry : cache()) {
        const QVariantMap event = entry.toMap();
        if (event.value(QStringLiteral("event")).toString() == u"launch" &&
            now - event.value(QStringLiteral("date")).toLongLong() < kLaunchGuard)
            return;  // counted already
    }
    logQCEvent(
        QVariantMap{{QStringLiteral("event"), QStringLiteral("launch")}, {QStringLiteral("date"), now}});
}

void HXQC::logSystemSpecsEvent()
{
    const QString version = HXOSDetect::osxVersion();
    if (version.isEmpty())
        return;
    HXUserDefaults &defaults = HXUserDefaults::standardUserDefaults();
    if (defaults.stringForKey(kLastOSVersion) == version)
        return;
    const QVariantMap event{{QStringLiteral("event"), QStringLiteral("specs")},
                            {QStringLiteral("date"), secondsSince1970()},
                            {QStringLiteral("data"), version}};
    defaults.setObject(version, kLastOSVersion);
    logQCEvent(event);
}

void HXQC::writeCache()
{
    if (m_shouldLog)
        enqueue([this] { writeCacheOnThread(); });
}

void HXQC::writeCacheOnThread()
{
    if (!m_shouldLog)
        return;
    const QString path = cacheFilePath();
    QDir().mkpath(HXPath::deletingLastComponent(path));
    if (bundleIdentifier().isEmpty()) {
        HXLog::appendLog(u"Error: unable to save QC data. Bundle ID not found.");
        return;
    }
    std::lock_guard lock(m_cacheMutex);
    PropertyList::writeXmlFile(path, m_cache);
    m_lastCacheWrite = QDateTime::currentDateTimeUtc();
}

void HXQC::enableQCLogging()
{
    setQCLogging(true);
}

void HXQC::disableQCLogging()
{
    setQCLogging(false);
}

void HXQC::setQCLogging(bool shouldLog)
{
    QVariantMap consent = readConsent();
    consent.insert(kLogQC, shouldLog);
    writeConsent(consent);
    m_shouldLog = shouldLog;
}

void HXQC::toggleQCLogging(const QAbstractButton *sender)
{
    setQCLogging(sender != nullptr && sender->isChecked());
}

void HXQC::awakeFromNib()
{
    if (m_qcShouldLogCheckbox)
        m_qcShouldLogCheckbox->setChecked(m_shouldLog);
}

void HXQC::uploadData()
{
    std::lock_guard instanceLock(m_lock);
    const QVariantList events = cache();
    if (!m_shouldLog || events.isEmpty())
        return;

    QVariantMap consent = readConsent();
    const QDateTime now = QDateTime::currentDateTimeUtc();
    const QDateTime assigned = consent.value(kUidAssigned).toDateTime();
    if (!consent.contains(kUid) || !assigned.isValid() || assigned.secsTo(now) > kIdentifierLifetime) {
        consent.insert(kUid, generateRandomString(12));
        consent.insert(kUidAssigned, now);
        writeConsent(consent);
    }

    const HXBundle &bundle = HXBundle::mainBundle();
    const QString identifier = bundle.bundleIdentifier();
    const QString version = bundle.objectForInfoDictionaryKey(QStringLiteral("CFBundleVersion")).toString();
    const QVariantMap form{
        {kUid, consent.value(kUid)},
        {QStringLiteral("app"), identifier.isEmpty() ? QStringLiteral("Unknown") : identifier},
        {QStringLiteral("version"), version.isEmpty() ? QStringLiteral("Unknown") : version},
        {QStringLiteral("events"),
         QString::fromUtf8(
             QJsonDocument(QJsonArray::fromVariantList(events)).toJson(QJsonDocument::Compact))}};
    postDictionary(form, uploadURL());

    // At once, whatever comes of the upload: the events of a failed one are not kept.
    setCache({});
    QFile::remove(cacheFilePath());
    HXUserDefaults::standardUserDefaults().setObject(now, kLastSubmission);

    awaitConnection();
}

QByteArray HXQC::generateFormData(const QVariantMap &dictionary, const QString &boundary)
{
    QByteArray body;
    for (auto entry = dictionary.constBegin(); entry != dictionary.constEnd(); ++entry) {
        body += HXFormat(u"--%@\r\n", boundary).toUtf8();
        if (entry.value().typeId() == QMetaType::QUrl) {
            const QUrl url = entry.value().toUrl();
            if (url.isLocalFile()) {
                const QString path = url.toLocalFile();
                body += HXFormat(u"Content-Disposition: form-data; name=\"%@\"; filename=\"%@\"\r\n",
                                 entry.key(), HXPath::lastComponent(path))
                            .toUtf8();
                body += "Content-Type: application/octet-stream\r\n\r\n";
                QFile file(path);
                if (file.open(QIODevice::ReadOnly))
                    body += file.readAll();
            }
        } else {
            body += HXFormat(u"Content-Disposition: form-data; name=\"%@\"\r\n\r\n", entry.key()).toUtf8();
            body += HXFormat(u"%@", entry.value()).toUtf8();
        }
        body += "\r\n";
    }
    return body;
}

void HXQC::postDictionary(const QVariantMap &dictionary, const QUrl &url)
{
    const QString boundary = globallyUniqueString();
    const QByteArray body = generateFormData(dictionary, boundary);
    QNetworkRequest request(url);
    request.setRawHeader("Content-Type", HXFormat(u"multipart/form-data; boundary=%@", boundary).toUtf8());
    request.setTransferTimeout(kTransferTimeout);

    // Statistics only ever travel encrypted.
    if (url.isValid() && url.scheme() == u"https" && !url.host().isEmpty()) {
        m_network = std::make_unique<QNetworkAccessManager>();
        m_connection = m_network->post(request, body);
    }
    if (m_connection == nullptr) {
        m_network.reset();
        HXLog::appendLogAndPrint(u"Failed to establish a connection. Please try again later.");
        return;
    }
    HXLog::appendLog(u"Sending QC log to Lanternfish...");
}

void HXQC::awaitConnection()
{
    if (m_connection == nullptr)
        return;
    QNetworkReply *reply = m_connection;
    if (!reply->isFinished()) {
        QEventLoop loop;
        QObject::connect(reply, &QNetworkReply::finished, &loop, &QEventLoop::quit);
        QObject::connect(reply, &QNetworkReply::readyRead, &loop,
                         [this, reply] { connectionDidReceiveData(reply->readAll()); });
        // Quitting the application does not wait for the server.
        QTimer terminationCheck;
        QObject::connect(&terminationCheck, &QTimer::timeout, &loop, [this, reply] {
            if (m_terminating)
                reply->abort();
        });
        terminationCheck.start(50);
        loop.exec();
    }
    if (reply->error() != QNetworkReply::NoError)
        connectionDidFailWithError(reply->errorString());
    else
        connectionDidFinishLoading();
}

QString HXQC::generateRandomString(int length)
{
    constexpr quint32 alphabetLength = sizeof kAlphabet - 1;
    QString result;
    for (int i = 0; i < length; ++i)
        result.append(QLatin1Char(kAlphabet[QRandomGenerator::system()->generate() % alphabetLength]));
    return result;
}

void HXQC::willTerminate()
{
    QObject::disconnect(m_willTerminateObservation);
    m_terminating = true;
    std::unique_ptr<HXSerialQueue> queue;
    {
        std::lock_guard lock(m_queueMutex);
        queue = std::move(m_opQueue);
    }
    if (queue) {
        queue->cancelAllOperations();
        queue.reset();  // the operation under way ends first
    }
    // Events logged less than a second ago are not lost.
    writeCacheOnThread();
}

void HXQC::connectionDidReceiveData(const QByteArray &)
{
}

void HXQC::connectionDidFailWithError(const QString &localizedDescription)
{
    HXLog::appendLogAndPrint(u"Connection failed - %@", localizedDescription);
    releaseConnection();
}

void HXQC::connectionDidFinishLoading()
{
    releaseConnection();
}

void HXQC::releaseConnection()
{
    m_connection = nullptr;
    m_network.reset();  // the reply goes with its manager
}

QVariantList HXQC::cache() const
{
    std::lock_guard lock(m_cacheMutex);
    return m_cache;
}

void HXQC::setCache(const QVariantList &cache)
{
    std::lock_guard lock(m_cacheMutex);
    m_cache = cache;
}

std::optional<QDateTime> HXQC::lastCacheWrite() const
{
    std::lock_guard lock(m_cacheMutex);
    return m_lastCacheWrite;
}

void HXQC::waitUntilQueueIsIdle()
{
    std::lock_guard lock(m_queueMutex);
    if (m_opQueue)
        m_opQueue->waitUntilAllOperationsAreFinished();
}
