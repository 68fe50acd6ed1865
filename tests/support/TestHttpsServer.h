#pragma once

// A local HTTPS server for one test: it listens on 127.0.0.1 with a self-signed
// certificate for 127.0.0.1 and "localhost" made at start, records every request it receives
// and answers each with 200. The certificate is handed to the sandbox as the
// only trusted authority.
//
// Start it before the test program runs any process: under ThreadSanitizer a
// thread started after QProcess has forked counts as started in a forked child.

#include <QByteArray>
#include <QList>
#include <QString>

#include <atomic>
#include <mutex>
#include <thread>

struct RecordedRequest {
    QByteArray requestLine;                        // "POST /path HTTP/1.1"
    QList<QPair<QByteArray, QByteArray>> headers;  // as sent, in order
    QByteArray body;

    QByteArray header(const QByteArray &name) const;  // case-blind; empty when absent
};

class TestHttpsServer {
public:
    TestHttpsServer();
    ~TestHttpsServer();

    TestHttpsServer(const TestHttpsServer &) = delete;
    TestHttpsServer &operator=(const TestHttpsServer &) = delete;

    // False (with the reason) when the certificate or the socket could not be made.
    bool isListening() const { return m_listener >= 0; }
    QString error() const { return m_error; }
    int port() const { return m_port; }
    QString baseURL() const;

    // A folder in OpenSSL's hashed layout that holds only this server's
    // certificate, to stand in for the system's certificate folder.
    QString trustedCertificatesFolder() const { return m_trustFolder; }

    QList<RecordedRequest> requests() const;
    void clearRequests();

    // A port on 127.0.0.1 where nobody listens.
    static int unusedPort();

private:
    void serve();
    void handle(int client);

    QString m_error;
    QString m_trustFolder;
    QString m_workFolder;
    int m_listener = -1;
    int m_port = 0;
    void *m_context = nullptr;  // SSL_CTX
    std::atomic<bool> m_stopping{false};
    mutable std::mutex m_mutex;
    QList<RecordedRequest> m_requests;
    std::thread m_thread;
};
