#pragma once

// A stand-in client application (tests/programs/taskcallbackclient.cpp) on the
// session bus of this process: owns NAME, implements METHODS of the callback
// protocol and records what it receives.

#include <QProcess>
#include <QString>
#include <QStringList>

class TestCallbackClient {
public:
    TestCallbackClient(const QString &name, const QString &methods);
    ~TestCallbackClient();

    bool isReady() const { return m_process.state() == QProcess::Running; }
    // Stops the client's process, so messages to it go unanswered.
    void freeze() const;

    // Every message received so far. A sender that has exited had its messages
    // queued by the bus before this question, so they come first.
    QStringList received() const;

private:
    QString m_name;
    QProcess m_process;
};
