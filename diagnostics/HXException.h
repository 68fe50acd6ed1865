#pragma once

// Exceptions with a name and a reason, and the one way a caught exception reaches
// the log.

#include <QString>

#include <stdexcept>

class HXException : public std::runtime_error {
public:
    HXException(const QString &name, const QString &reason);

    const QString &name() const { return m_name; }
    const QString &reason() const { return m_reason; }

    // The name of any exception: its own for HXException, else its type.
    static QString nameOf(const std::exception &exception);
    static QString reasonOf(const std::exception &exception);

    // Logs and prints "Exception in <method>. <name> - <reason>." and returns it.
    static QString logException(const std::exception &exception, const char *method);

    // True for the exception raised when a message to another process times out.
    static bool didTimeout(const std::exception &exception, bool unused = false);

private:
    QString m_name;
    QString m_reason;
};
