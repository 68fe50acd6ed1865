#pragma once

#include <QString>
#include <QTemporaryFile>

// Standard error redirected into a temporary file while alive (or until text()).
class StderrCapture {
public:
    StderrCapture();
    ~StderrCapture() { restore(); }
    StderrCapture(const StderrCapture &) = delete;
    StderrCapture &operator=(const StderrCapture &) = delete;

    // Ends the capture and returns what was written.
    QString text();

private:
    void restore();

    QTemporaryFile m_file;
    int m_saved = -1;
};
