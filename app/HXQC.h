#pragma once

// Anonymous usage statistics: launches and the system version, collected only
// with the user's consent, kept in a cache file and now and then posted to the
// suite's statistics server as a multipart form. One instance per process.
//
// The consent file and the cache live in the process's own home, also as root.
// Cache writes and uploads run one at a time on a queue of their own; events are
// added on the main thread.

#include <QDateTime>
#include <QMetaObject>
#include <QString>
#include <QUrl>
#include <QVariantList>
#include <QVariantMap>

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>

class HXSerialQueue;
class QAbstractButton;
class QNetworkAccessManager;
class QNetworkReply;
class QWidget;

class HXQC {
public:
    static HXQC &sharedController();

    HXQC(const HXQC &) = delete;
    HXQC &operator=(const HXQC &) = delete;

    // When the application has finished launching: asks for consent once (from the
    // second run on), logs this run's events and uploads when it is time.
    void loadQC(QWidget *parentWindow);

    void logQCEvent(const std::optional<QVariantMap> &event);
    void logLoadEvent();
    void logSystemSpecsEvent();
    void writeCache();
    void writeCacheOnThread();

    void enableQCLogging();
    void disableQCLogging();
    void setQCLogging(bool shouldLog);
    void toggleQCLogging(const QAbstractButton *sender);

    void uploadData();
    // Keys in the dictionary's own (sorted) order; no closing delimiter after the
    // last part, as the server has always received it.
    static QByteArray generateFormData(const QVariantMap &dictionary, const QString &boundary);
    void postDictionary(const QVariantMap &dictionary, const QUrl &url);
    static QString generateRandomString(int length);

    void willTerminate();

    void connectionDidReceiveData(const QByteArray &data);
    void connectionDidFailWithError(const QString &localizedDescription);
    void connectionDidFinishLoading();

    QVariantList cache() const;
    void setCache(const QVariantList &cache);
    std::optional<QDateTime> lastCacheWrite() const;
    bool shouldLog() const { return m_shouldLog.load(); }
    void setQcShouldLogCheckbox(QAbstractButton *checkbox) { m_qcShouldLogCheckbox = checkbox; }
    // When the preferences interface has loaded: the check box shows the consent.
    void awakeFromNib();

    // Waits until queued cache writes and uploads are done (an upload until its
    // answer came), for programs that end without the will-terminate notice.
    void waitUntilQueueIsIdle();

    static QString consentFilePath();
    static QString cacheFilePath();
    // The statistics endpoint and the page that explains them, from Info.plist.
    static QUrl uploadURL();
    static QString informationPageAddress();

private:
    HXQC();

    // Waits for the upload in flight and hands its outcome to the callbacks.
    void awaitConnection();
    void enqueue(std::function<void()> operation);
    void releaseConnection();
    std::optional<QDateTime> lastSubmission() const;

    mutable std::mutex m_cacheMutex;
    QVariantList m_cache;
    std::optional<QDateTime> m_lastCacheWrite;

    std::mutex m_lock;  // held by a whole upload
    std::unique_ptr<QNetworkAccessManager> m_network;
    QNetworkReply *m_connection = nullptr;

    std::mutex m_queueMutex;
    std::unique_ptr<HXSerialQueue> m_opQueue;
    std::atomic<bool> m_terminating{false};
    QMetaObject::Connection m_willTerminateObservation;

    std::atomic<bool> m_shouldLog{false};
    QAbstractButton *m_qcShouldLogCheckbox = nullptr;
};
