#pragma once

// A freedesktop notification server for the tests: dunst on a test display and
// bus, with a configuration of the test's own. Every notice it shows is recorded
// (one line of "<field>=<value>" pairs, separated by tabs, per notice).
// Notices whose summary starts with "Sticky" never expire; all others expire
// after one second.

#include <QProcess>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>

class TestNotificationServer {
public:
    TestNotificationServer(const QString &display, const QString &busAddress);
    ~TestNotificationServer();

    // True once dunst owns org.freedesktop.Notifications on the bus.
    bool isRunning() const { return m_running; }
    // The notices shown so far, in order.
    QStringList shownNotices() const;

private:
    QTemporaryDir m_dir;
    QProcess m_server;
    bool m_running = false;
};
