#pragma once

// An X display of the test's own: Xvfb on the first free display number.

#include <QProcess>
#include <QString>

class TestDisplay {
public:
    // SCREEN: Xvfb's screen, WIDTHxHEIGHTxDEPTH.
    explicit TestDisplay(const QString &screen = QStringLiteral("1280x800x24"));
    ~TestDisplay();

    bool isRunning() const { return !m_display.isEmpty(); }
    // ":N"
    QString display() const { return m_display; }

private:
    QProcess m_server;
    QString m_display;
};
