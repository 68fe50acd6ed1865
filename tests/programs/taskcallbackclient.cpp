// Stand-in for the suite's client applications: owns a callback name on the
// session bus, implements the chosen messages of the callback protocol on its
// root object and records every message it receives. The test reads the record
// through Received() of interface com.lanternfish.test.Recorder.
//
//   taskcallbackclient <bus name> <method>[,<method>...]
//
// Prints "ready" once it owns the name.

#include "system/HXDBusValue.h"

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusVirtualObject>
#include <QStringList>
#include <QThread>

#include <cstdio>

namespace {

const QString kProtocol = QStringLiteral("com.lanternfish.HXMarlinErrorCallbackProtocol");
const QString kRecorder = QStringLiteral("com.lanternfish.test.Recorder");

// Every message the protocol knows, with the D-Bus types of its arguments.
const QList<QPair<QString, QStringList>> kSignatures = {
    {QStringLiteral("incrementRemoteProgress"), {}},
    {QStringLiteral("postFinishedTask"), {}},
    {QStringLiteral("postError"), {QStringLiteral("a{sv}")}},
    {QStringLiteral("postErrorString"), {QStringLiteral("s")}},
    {QStringLiteral("postDisconnect"), {}},
    {QStringLiteral("postErrorForApp"), {QStringLiteral("a{sv}"), QStringLiteral("s")}},
    {QStringLiteral("postErrorStringUserInfo"), {QStringLiteral("s"), QStringLiteral("a{sv}")}},
};

QString describe(const QVariant &value)
{
    const QVariant plain = HXDBusValue::fromWire(value);
    if (plain.typeId() == QMetaType::QVariantMap) {
        QStringList entries;
        const QVariantMap map = plain.toMap();
        for (auto it = map.cbegin(); it != map.cend(); ++it)
            entries.append(it.key() + QLatin1Char('=') + it.value().toString());
        return QLatin1Char('{') + entries.join(QLatin1Char(',')) + QLatin1Char('}');
    }
    return plain.toString();
}

class Client : public QDBusVirtualObject {
public:
    explicit Client(QStringList methods) : m_methods(std::move(methods)) {}

    QString introspect(const QString &) const override
    {
        QString xml = QStringLiteral("<interface name=\"%1\">\n").arg(kProtocol);
        for (const auto &[method, types] : kSignatures) {
            if (!m_methods.contains(method))
                continue;
            xml += QStringLiteral("  <method name=\"%1\">\n").arg(method);
            for (const QString &type : types)
                xml += QStringLiteral("    <arg type=\"%1\" direction=\"in\"/>\n").arg(type);
            xml += QStringLiteral(
                "    <annotation name=\"org.freedesktop.DBus.Method.NoReply\" value=\"true\"/>\n"
                "  </method>\n");
        }
        xml += QStringLiteral("</interface>\n<interface name=\"%1\">\n"
                              "  <method name=\"Received\"><arg type=\"as\" direction=\"out\"/></method>\n"
                              "</interface>\n")
                   .arg(kRecorder);
        return xml;
    }

    bool handleMessage(const QDBusMessage &message, const QDBusConnection &connection) override
    {
        if (message.interface() == kRecorder && message.member() == QLatin1String("Received")) {
            connection.send(message.createReply(QVariant(m_received)));
            return true;
        }
        if (message.interface() != kProtocol)
            return false;
        QStringList line{message.member(),
                         message.isReplyRequired() ? QStringLiteral("reply") : QStringLiteral("oneway")};
        for (const QVariant &argument : message.arguments())
            line.append(describe(argument));
        m_received.append(line.join(QLatin1Char('|')));
        return true;
    }

private:
    QStringList m_methods;
    QStringList m_received;
};

}  // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    const QStringList args = app.arguments();
    if (args.size() < 3) {
        std::fprintf(stderr, "usage: taskcallbackclient <bus name> <method>[,<method>...]\n");
        return 2;
    }
    QDBusConnection bus = QDBusConnection::sessionBus();
    Client client(args.at(2).split(QLatin1Char(','), Qt::SkipEmptyParts));
    bool registered = bus.registerVirtualObject(QStringLiteral("/"), &client, QDBusConnection::SingleNode);
    // A client of the same name that just ended may still hold the name for a moment.
    bool named = false;
    for (int attempt = 0; registered && !named && attempt < 50; ++attempt) {
        named = bus.registerService(args.at(1));
        if (!named)
            QThread::msleep(100);
    }
    registered = registered && named;
    if (!registered) {
        std::fprintf(stderr, "cannot register: %s\n", qPrintable(bus.lastError().message()));
        return 1;
    }
    std::puts("ready");
    std::fflush(stdout);
    return app.exec();
}
