#include "tests/support/TestDisplay.h"

#include <unistd.h>

TestDisplay::TestDisplay(const QString &screen)
{
    // Xvfb picks a free number and writes it to the descriptor given by -displayfd.
    // -noreset: a server that resets when its last client leaves refuses the next
    // one for a moment.
    int fds[2];
    if (::pipe(fds) != 0)
        return;
    m_server.setChildProcessModifier([fds] { ::close(fds[0]); });
    m_server.start(QStringLiteral("Xvfb"),
                   {QStringLiteral("-displayfd"), QString::number(fds[1]), QStringLiteral("-screen"),
                    QStringLiteral("0"), screen, QStringLiteral("-noreset"), QStringLiteral("-nolisten"),
                    QStringLiteral("tcp")});
    ::close(fds[1]);
    if (!m_server.waitForStarted()) {
        ::close(fds[0]);
        return;
    }
    QByteArray number;
    char c = 0;
    while (::read(fds[0], &c, 1) == 1 && c != '\n')
        number.append(c);
    ::close(fds[0]);
    if (!number.isEmpty())
        m_display = QLatin1Char(':') + QString::fromLatin1(number);
}

TestDisplay::~TestDisplay()
{
    if (m_server.state() != QProcess::NotRunning) {
        m_server.terminate();
        if (!m_server.waitForFinished(5000))
            m_server.kill();
        m_server.waitForFinished();
    }
}
