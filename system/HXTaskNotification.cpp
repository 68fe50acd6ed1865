#include "system/HXTaskNotification.h"

#include "diagnostics/HXException.h"
#include "platform/Platform.h"
#include "system/HXDBusValue.h"
#include "system/HXPath.h"
#include "system/HXSessionBus.h"

#include <QDBusError>
#include <QDBusMessage>
#include <QStringList>
#include <QXmlStreamReader>

#include <chrono>
#include <optional>
#include <thread>

namespace {

// Keeps a burst of reports from flooding the client.
constexpr std::chrono::microseconds kPauseAfterReport(15000);
// How long a client may take to describe itself before the report counts as
// broken (the time-out exception of a distributed-object connection).
constexpr int kIntrospectionTimeoutMs = 5000;

// The client that receives the reports: its bus name and the methods of the
// protocol interface that it implements.
struct Client {
    QString name;
    QStringList methods;

    bool respondsTo(const char *method) const { return methods.contains(QLatin1String(method)); }
};

[[noreturn]] void raise(const QDBusError &error)
{
    const QString name = error.type() == QDBusError::NoReply || error.type() == QDBusError::Timeout ||
                                 error.type() == QDBusError::TimedOut
                             ? QStringLiteral("NSPortTimeoutException")
                             : error.name();
    throw HXException(name, error.message());
}

QStringList protocolMethods(const QString &introspection)
{
    QStringList methods;
    QXmlStreamReader xml(introspection);
    int depth = 0;
    int interfaceDepth = -1;
    while (!xml.atEnd()) {
        const QXmlStreamReader::TokenType token = xml.readNext();
        if (token == QXmlStreamReader::StartElement) {
            ++depth;
            if (xml.name() == QLatin1String("interface") &&
                xml.attributes().value(QLatin1String("name")) ==
                    QLatin1String(HXTaskNotification::kProtocolInterface))
                interfaceDepth = depth;
            else if (interfaceDepth > 0 && depth == interfaceDepth + 1 &&
                     xml.name() == QLatin1String("method"))
                methods.append(xml.attributes().value(QLatin1String("name")).toString());
        } else if (token == QXmlStreamReader::EndElement) {
            if (depth == interfaceDepth)
                interfaceDepth = -1;
            --depth;
        }
    }
    if (xml.hasError())
        throw HXException(QStringLiteral("NSInvalidReceivePortException"),
                          QStringLiteral("Unreadable description of the client: ") + xml.errorString());
    return methods;
}

// The client to report to; none when neither name is owned (no pause, no log).
std::optional<Client> findClient()
{
    QString name;
    for (const char *candidate :
         {HXTaskNotification::kPreferredClientName, HXTaskNotification::kFallbackClientName}) {
        if (HXSessionBus::nameHasOwner(QString::fromLatin1(candidate))) {
            name = QString::fromLatin1(candidate);
            break;
        }
    }
    if (name.isEmpty())
        return std::nullopt;

    QDBusMessage call = QDBusMessage::createMethodCall(
        name, QString::fromLatin1(HXTaskNotification::kClientPath),
        QStringLiteral("org.freedesktop.DBus.Introspectable"), QStringLiteral("Introspect"));
    call.setAutoStartService(false);
    const QDBusMessage reply = HXSessionBus::connection().call(call, QDBus::Block, kIntrospectionTimeoutMs);
    if (reply.type() != QDBusMessage::ReplyMessage)
        raise(QDBusError(reply));
    if (reply.arguments().isEmpty())
        throw HXException(QStringLiteral("NSInvalidReceivePortException"),
                          QStringLiteral("The client did not describe itself"));
    return Client{name, protocolMethods(reply.arguments().constFirst().toString())};
}

// Sends METHOD one-way: the bus takes it and this program never waits for the client.
void send(const Client &client, const char *method, const QVariantList &arguments = {})
{
    QDBusMessage call = QDBusMessage::createMethodCall(
        client.name, QString::fromLatin1(HXTaskNotification::kClientPath),
        QString::fromLatin1(HXTaskNotification::kProtocolInterface), QString::fromLatin1(method));
    call.setAutoStartService(false);
    call.setArguments(arguments);
    QDBusConnection bus = HXSessionBus::connection();
    // QDBusConnection::send marks a method call as expecting no reply.
    if (!bus.send(call))
        raise(bus.lastError());
    // The report must reach the client even when this program ends right after
    // (the closing postDisconnect of a command-line run).
    if (!HXSessionBus::flush())
        throw HXException(QStringLiteral("NSPortTimeoutException"),
                          QStringLiteral("The session bus did not take the report"));
}

template <typename Body> void report(const char *method, Body body)
{
    try {
        const std::optional<Client> client = findClient();
        if (!client)
            return;
        body(*client);
        std::this_thread::sleep_for(kPauseAfterReport);
    } catch (const std::exception &e) {
        HXException::logException(e, method);
    }
}

}  // namespace

QString HXTaskNotification::processName()
{
    return HXPath::lastComponent(platform::executablePath());
}

void HXTaskNotification::postIncrementProgress()
{
    report("+[HXTaskNotification postIncrementProgress]", [](const Client &client) {
        if (client.respondsTo("incrementRemoteProgress"))
            send(client, "incrementRemoteProgress");
    });
}

void HXTaskNotification::postTaskFinished()
{
    report("+[HXTaskNotification postTaskFinished]", [](const Client &client) {
        if (client.respondsTo("postFinishedTask"))
            send(client, "postFinishedTask");
    });
}

void HXTaskNotification::postTaskError(const QVariantMap &error)
{
    report("+[HXTaskNotification postTaskError:]", [&error](const Client &client) {
        const QVariant wireError = QVariant::fromValue(HXDBusValue::toWire(error));
        if (client.respondsTo("postErrorForApp"))
            send(client, "postErrorForApp", {wireError, processName()});
        else if (client.respondsTo("postError"))
            send(client, "postError", {wireError});
    });
}

void HXTaskNotification::postTaskErrorString(const QString &text)
{
    report("+[HXTaskNotification postTaskErrorString:]", [&text](const Client &client) {
        if (client.respondsTo("postErrorStringUserInfo")) {
            const QVariantMap userInfo{{QStringLiteral("appName"), processName()}};
            send(client, "postErrorStringUserInfo", {text, QVariant::fromValue(userInfo)});
        } else if (client.respondsTo("postErrorString")) {
            send(client, "postErrorString", {text});
        }
    });
}

void HXTaskNotification::postDisconnect()
{
    report("+[HXTaskNotification postDisconnect]", [](const Client &client) {
        if (client.respondsTo("postDisconnect"))
            send(client, "postDisconnect");
    });
}
