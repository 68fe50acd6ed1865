#include "tests/support/TestSessionBus.h"

#include <QFile>

#include <sys/stat.h>

TestSessionBus::TestSessionBus()
{
    ::chmod(QFile::encodeName(m_dir.path()).constData(), 0755);
    const QString config = m_dir.filePath(QStringLiteral("session.conf"));
    QFile file(config);
    if (!file.open(QIODevice::WriteOnly))
        return;
    file.write(
        QStringLiteral(R"(<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>session</type>
  <listen>unix:path=%1/bus</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow user="*"/>
    <allow send_destination="*" eavesdrop="true"/>
    <allow eavesdrop="true"/>
    <allow own="*"/>
  </policy>
</busconfig>
)")
            .arg(m_dir.path())
            .toUtf8());
    file.close();
    m_daemon.start(QStringLiteral("dbus-daemon"),
                   {QStringLiteral("--config-file=") + config, QStringLiteral("--nofork"),
                    QStringLiteral("--print-address=1")});
    if (!m_daemon.waitForStarted())
        return;
    while (!m_daemon.canReadLine() && m_daemon.state() == QProcess::Running)
        m_daemon.waitForReadyRead(1000);
    const QString address = QString::fromUtf8(m_daemon.readLine()).trimmed();
    // The test account joins the bus from its sandbox.
    ::chmod(QFile::encodeName(m_dir.filePath(QStringLiteral("bus"))).constData(), 0777);
    m_address = address;
}

TestSessionBus::~TestSessionBus()
{
    if (m_daemon.state() != QProcess::NotRunning) {
        m_daemon.terminate();
        if (!m_daemon.waitForFinished(5000))
            m_daemon.kill();
        m_daemon.waitForFinished();
    }
}

void TestSessionBus::useForThisProcess() const
{
    qputenv("DBUS_SESSION_BUS_ADDRESS", m_address.toUtf8());
}
