#include "tests/support/TestHttpsServer.h"

#include <QDir>
#include <QFile>

#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>

namespace {

struct Freer {
    void operator()(EVP_PKEY *key) const { EVP_PKEY_free(key); }
    void operator()(X509 *certificate) const { X509_free(certificate); }
    void operator()(BIO *bio) const { BIO_free(bio); }
    void operator()(SSL *ssl) const { SSL_free(ssl); }
};
template <typename T> using Owned = std::unique_ptr<T, Freer>;

QString openSslError(const char *what)
{
    char text[256] = {};
    ERR_error_string_n(ERR_get_error(), text, sizeof text);
    return QStringLiteral("%1: %2").arg(QLatin1String(what), QLatin1String(text));
}

bool addExtension(X509 *certificate, int nid, const char *value)
{
    X509V3_CTX context;
    X509V3_set_ctx_nodb(&context);
    X509V3_set_ctx(&context, certificate, certificate, nullptr, nullptr, 0);
    X509_EXTENSION *extension = X509V3_EXT_conf_nid(nullptr, &context, nid, value);
    if (extension == nullptr)
        return false;
    const bool added = X509_add_ext(certificate, extension, -1) == 1;
    X509_EXTENSION_free(extension);
    return added;
}

// A self-signed authority certificate for localhost, valid for a day.
Owned<X509> makeCertificate(EVP_PKEY *key)
{
    Owned<X509> certificate(X509_new());
    X509_set_version(certificate.get(), 2);
    ASN1_INTEGER_set(X509_get_serialNumber(certificate.get()), static_cast<long>(::getpid()) << 8 | 1);
    X509_gmtime_adj(X509_getm_notBefore(certificate.get()), -3600);
    X509_gmtime_adj(X509_getm_notAfter(certificate.get()), 86400);
    X509_set_pubkey(certificate.get(), key);
    X509_NAME *name = X509_get_subject_name(certificate.get());
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, reinterpret_cast<const unsigned char *>("localhost"),
                               -1, -1, 0);
    X509_set_issuer_name(certificate.get(), name);
    const bool extended =
        addExtension(certificate.get(), NID_basic_constraints, "critical,CA:TRUE") &&
        addExtension(certificate.get(), NID_key_usage, "critical,digitalSignature,keyCertSign") &&
        addExtension(certificate.get(), NID_subject_alt_name, "DNS:localhost,IP:127.0.0.1") &&
        addExtension(certificate.get(), NID_subject_key_identifier, "hash");
    if (!extended || X509_sign(certificate.get(), key, EVP_sha256()) == 0)
        return nullptr;
    return certificate;
}

QByteArray pem(X509 *certificate)
{
    Owned<BIO> bio(BIO_new(BIO_s_mem()));
    PEM_write_bio_X509(bio.get(), certificate);
    char *data = nullptr;
    const long length = BIO_get_mem_data(bio.get(), &data);
    return QByteArray(data, static_cast<qsizetype>(length));
}

// A socket bound to a free port on 127.0.0.1 (-1 when none), and that port.
int bindLoopback(int &port)
{
    const int socket = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (socket < 0 || ::bind(socket, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0 ||
        ::getsockname(socket, reinterpret_cast<sockaddr *>(&address), &length) != 0) {
        if (socket >= 0)
            ::close(socket);
        return -1;
    }
    port = ntohs(address.sin_port);
    return socket;
}

bool readSome(SSL *ssl, QByteArray &into)
{
    char buffer[16384];
    const int count = SSL_read(ssl, buffer, sizeof buffer);
    if (count <= 0)
        return false;
    into.append(buffer, count);
    return true;
}

}  // namespace

QByteArray RecordedRequest::header(const QByteArray &name) const
{
    for (const auto &[key, value] : headers)
        if (key.compare(name, Qt::CaseInsensitive) == 0)
            return value;
    return {};
}

TestHttpsServer::TestHttpsServer()
{
    char pattern[] = "/tmp/mendwell-https-XXXXXX";
    if (::mkdtemp(pattern) == nullptr) {
        m_error = QStringLiteral("no temporary folder");
        return;
    }
    m_workFolder = QString::fromLocal8Bit(pattern);
    m_trustFolder = m_workFolder + QStringLiteral("/certs");
    QDir().mkpath(m_trustFolder);
    // Readable by the sandbox's user, who trusts it.
    ::chmod(pattern, 0755);
    ::chmod(QFile::encodeName(m_trustFolder).constData(), 0755);

    Owned<EVP_PKEY> key(EVP_EC_gen("P-256"));
    Owned<X509> certificate = key ? makeCertificate(key.get()) : nullptr;
    if (!certificate) {
        m_error = openSslError("certificate");
        return;
    }
    QFile trusted(m_trustFolder + QStringLiteral("/%1.0").arg(X509_subject_name_hash(certificate.get()), 8,
                                                              16, QLatin1Char('0')));
    if (!trusted.open(QIODevice::WriteOnly) || trusted.write(pem(certificate.get())) < 0) {
        m_error = QStringLiteral("cannot write %1").arg(trusted.fileName());
        return;
    }
    trusted.close();
    trusted.setPermissions(QFile::ReadOwner | QFile::WriteOwner | QFile::ReadGroup | QFile::ReadOther);

    SSL_CTX *context = SSL_CTX_new(TLS_server_method());
    m_context = context;
    if (context == nullptr || SSL_CTX_use_certificate(context, certificate.get()) != 1 ||
        SSL_CTX_use_PrivateKey(context, key.get()) != 1) {
        m_error = openSslError("context");
        return;
    }

    int port = 0;
    const int listener = bindLoopback(port);
    if (listener < 0 || ::listen(listener, 8) != 0) {
        m_error = QStringLiteral("cannot listen on 127.0.0.1");
        if (listener >= 0)
            ::close(listener);
        return;
    }
    m_port = port;
    m_listener = listener;
    m_thread = std::thread([this] { serve(); });
}

TestHttpsServer::~TestHttpsServer()
{
    m_stopping = true;
    if (m_thread.joinable())
        m_thread.join();
    if (m_listener >= 0)
        ::close(m_listener);
    SSL_CTX_free(static_cast<SSL_CTX *>(m_context));
    if (!m_workFolder.isEmpty())
        QDir(m_workFolder).removeRecursively();
}

QString TestHttpsServer::baseURL() const
{
    // By address: name lookup of "localhost" is not given on every machine.
    return QStringLiteral("https://127.0.0.1:%1").arg(m_port);
}

QList<RecordedRequest> TestHttpsServer::requests() const
{
    std::lock_guard lock(m_mutex);
    return m_requests;
}

void TestHttpsServer::clearRequests()
{
    std::lock_guard lock(m_mutex);
    m_requests.clear();
}

int TestHttpsServer::unusedPort()
{
    int port = 0;
    const int probe = bindLoopback(port);
    if (probe >= 0)
        ::close(probe);
    return port;
}

void TestHttpsServer::serve()
{
    while (!m_stopping) {
        pollfd waiting{m_listener, POLLIN, 0};
        if (::poll(&waiting, 1, 100) <= 0)
            continue;
        const int client = ::accept4(m_listener, nullptr, nullptr, SOCK_CLOEXEC);
        if (client < 0)
            continue;
        // A client that stops talking cannot hold the server.
        timeval limit{10, 0};
        ::setsockopt(client, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
        ::setsockopt(client, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
        handle(client);
        ::close(client);
    }
}

void TestHttpsServer::handle(int client)
{
    Owned<SSL> ssl(SSL_new(static_cast<SSL_CTX *>(m_context)));
    SSL_set_fd(ssl.get(), client);
    if (SSL_accept(ssl.get()) != 1)
        return;  // a client that did not trust us
    QByteArray received;
    qsizetype headerEnd = -1;
    while ((headerEnd = received.indexOf("\r\n\r\n")) < 0)
        if (!readSome(ssl.get(), received))
            return;
    RecordedRequest request;
    const QList<QByteArray> lines = received.left(headerEnd).split('\n');
    request.requestLine = lines.value(0).trimmed();
    for (qsizetype i = 1; i < lines.size(); ++i) {
        const qsizetype colon = lines[i].indexOf(':');
        if (colon > 0)
            request.headers.append({lines[i].left(colon).trimmed(), lines[i].mid(colon + 1).trimmed()});
    }
    const qsizetype length = request.header("Content-Length").toLongLong();
    while (received.size() - headerEnd - 4 < length)
        if (!readSome(ssl.get(), received))
            break;
    request.body = received.mid(headerEnd + 4, length);
    {
        std::lock_guard lock(m_mutex);
        m_requests.append(request);
    }
    static const char answer[] = "HTTP/1.1 200 OK\r\nContent-Length: 2\r\nConnection: close\r\n\r\nOK";
    SSL_write(ssl.get(), answer, sizeof answer - 1);
    SSL_shutdown(ssl.get());
}
