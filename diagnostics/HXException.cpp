#include "diagnostics/HXException.h"

#include "diagnostics/HXLog.h"

#include <cxxabi.h>

#include <cstdlib>
#include <memory>
#include <typeinfo>

HXException::HXException(const QString &name, const QString &reason)
    : std::runtime_error(reason.toStdString()), m_name(name), m_reason(reason)
{
}

QString HXException::nameOf(const std::exception &exception)
{
    if (const auto *own = dynamic_cast<const HXException *>(&exception))
        return own->name();
    int status = 0;
    std::unique_ptr<char, decltype(&std::free)> demangled(
        abi::__cxa_demangle(typeid(exception).name(), nullptr, nullptr, &status), &std::free);
    return QString::fromUtf8(status == 0 && demangled ? demangled.get() : typeid(exception).name());
}

QString HXException::reasonOf(const std::exception &exception)
{
    if (const auto *own = dynamic_cast<const HXException *>(&exception))
        return own->reason();
    return QString::fromUtf8(exception.what());
}

QString HXException::logException(const std::exception &exception, const char *method)
{
    const QString text =
        HXFormat(u"Exception in %s. %@ - %@.", method, nameOf(exception), reasonOf(exception));
    HXLog::appendLogAndPrint(text);
    return text;
}

bool HXException::didTimeout(const std::exception &exception, bool)
{
    return nameOf(exception) == QLatin1String("NSPortTimeoutException");
}
