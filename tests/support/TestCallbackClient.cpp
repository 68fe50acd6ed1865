#include "tests/support/TestCallbackClient.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusReply>

#include <gtest/gtest.h>

#include <csignal>

TestCallbackClient::TestCallbackClient(const QString &name, const QString &methods) : m_name(name)
{
    m_process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    m_process.start(QStringLiteral(MENDWELL_TEST_PROGRAMS_DIR "/taskcallbackclient"), {name, methods});
    while (!m_process.canReadLine() && m_process.state() != QProcess::NotRunning)
        m_process.waitForReadyRead(1000);
}

TestCallbackClient::~TestCallbackClient()
{
    ::kill(static_cast<pid_t>(m_process.processId()), SIGCONT);
    m_process.kill();
    m_process.waitForFinished();
}

void TestCallbackClient::freeze() const
{
    ::kill(static_cast<pid_t>(m_process.processId()), SIGSTOP);
}

QStringList TestCallbackClient::received() const
{
    const QDBusMessage call = QDBusMessage::createMethodCall(m_name, QStringLiteral("/"),
                                                             QStringLiteral("com.lanternfish.test.Recorder"),
                                                             QStringLiteral("Received"));
    const QDBusReply<QStringList> reply = QDBusConnection::sessionBus().call(call);
    EXPECT_TRUE(reply.isValid()) << reply.error().message().toStdString();
    return reply.value();
}
