#include "tests/support/TestNotificationServer.h"

#include "tests/support/Process.h"

#include <QFile>
#include <QProcessEnvironment>
#include <QThread>

#include <sys/stat.h>

TestNotificationServer::TestNotificationServer(const QString &display, const QString &busAddress)
{
    const QString record = m_dir.filePath(QStringLiteral("shown"));
    const QString script = m_dir.filePath(QStringLiteral("record.sh"));
    QFile scriptFile(script);
    if (!scriptFile.open(QIODevice::WriteOnly))
        return;
    scriptFile.write(
        QStringLiteral("#!/bin/sh\n"
                       "printf 'app=%s\\tsummary=%s\\tbody=%s\\ticon=%s\\tcategory=%s\\n' "
                       "\"$DUNST_APP_NAME\" \"$DUNST_SUMMARY\" \"$DUNST_BODY\" \"$DUNST_ICON_PATH\" "
                       "\"$DUNST_CATEGORY\" >> '%1'\n")
            .arg(record)
            .toUtf8());
    scriptFile.close();
    ::chmod(QFile::encodeName(script).constData(), 0755);

    // idle_threshold 0: an idle X server (Xvfb always is) must not hold notices back.
    const QString config = m_dir.filePath(QStringLiteral("dunstrc"));
    QFile configFile(config);
    if (!configFile.open(QIODevice::WriteOnly))
        return;
    configFile.write(QStringLiteral("[global]\n"
                                    "    idle_threshold = 0\n"
                                    "    follow = none\n"
                                    "    show_age_threshold = -1\n"
                                    "    sticky_history = false\n"
                                    "    mouse_left_click = do_action, close_current\n"
                                    "[urgency_low]\n    timeout = 1\n"
                                    "[urgency_normal]\n    timeout = 1\n"
                                    "[urgency_critical]\n    timeout = 1\n"
                                    "[sticky]\n    summary = \"Sticky*\"\n    timeout = 0\n"
                                    "[record]\n    summary = \"*\"\n    script = %1\n")
                         .arg(script)
                         .toUtf8());
    configFile.close();

    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("DISPLAY"), display);
    env.insert(QStringLiteral("DBUS_SESSION_BUS_ADDRESS"), busAddress);
    env.remove(QStringLiteral("WAYLAND_DISPLAY"));
    m_server.setProcessEnvironment(env);
    m_server.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    m_server.start(QStringLiteral("dunst"), {QStringLiteral("-config"), config});
    if (!m_server.waitForStarted())
        return;
    // Asks the bus who owns the name: a call to the server itself could make a bus
    // with activation start a second one.
    for (int attempt = 0; attempt < 300 && m_server.state() == QProcess::Running; ++attempt) {
        const ProcessResult owner = runProcess(
            {QStringLiteral("dbus-send"), QStringLiteral("--bus=") + busAddress,
             QStringLiteral("--print-reply=literal"), QStringLiteral("--dest=org.freedesktop.DBus"),
             QStringLiteral("/org/freedesktop/DBus"), QStringLiteral("org.freedesktop.DBus.NameHasOwner"),
             QStringLiteral("string:org.freedesktop.Notifications")});
        if (owner.out.contains("true")) {
            m_running = true;
            return;
        }
        QThread::msleep(100);
    }
}

TestNotificationServer::~TestNotificationServer()
{
    if (m_server.state() != QProcess::NotRunning) {
        m_server.terminate();
        if (!m_server.waitForFinished(5000))
            m_server.kill();
        m_server.waitForFinished();
    }
}

QStringList TestNotificationServer::shownNotices() const
{
    QFile file(m_dir.filePath(QStringLiteral("shown")));
    if (!file.open(QIODevice::ReadOnly))
        return {};
    return QString::fromUtf8(file.readAll()).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
}
