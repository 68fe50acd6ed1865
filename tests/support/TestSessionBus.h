#pragma once

// A private D-Bus session bus for one test program: a dbus-daemon of its own,
// open to every local user (so sandboxed programs running as the test account can
// join) and without service activation (nothing is started on demand).

#include <QProcess>
#include <QString>
#include <QTemporaryDir>

class TestSessionBus {
public:
    TestSessionBus();
    ~TestSessionBus();

    bool isRunning() const { return !m_address.isEmpty(); }
    QString address() const { return m_address; }
    // "DBUS_SESSION_BUS_ADDRESS=..." for a child's environment.
    QString environmentEntry() const { return QStringLiteral("DBUS_SESSION_BUS_ADDRESS=") + m_address; }

    // Makes this bus the session bus of the calling process; call before anything
    // in the process connects to a session bus.
    void useForThisProcess() const;

private:
    QTemporaryDir m_dir;
    QProcess m_daemon;
    QString m_address;
};
