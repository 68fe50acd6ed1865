#include "tests/support/StderrCapture.h"

#include <cstdio>
#include <unistd.h>

StderrCapture::StderrCapture()
{
    m_file.open();
    std::fflush(stderr);
    m_saved = ::dup(STDERR_FILENO);
    ::dup2(m_file.handle(), STDERR_FILENO);
}

QString StderrCapture::text()
{
    restore();
    m_file.seek(0);
    return QString::fromUtf8(m_file.readAll());
}

void StderrCapture::restore()
{
    if (m_saved < 0)
        return;
    std::fflush(stderr);
    ::dup2(m_saved, STDERR_FILENO);
    ::close(m_saved);
    m_saved = -1;
}
