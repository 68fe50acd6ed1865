#pragma once

// printf-style formatting with the "%@" object conversion, so that format strings
// read the same as the system's messages. Arguments are type-checked at the call:
// text formats as text, numbers as numbers, whatever the conversion asks for.

#include <QString>
#include <QStringList>
#include <QStringView>
#include <QVariant>

#include <concepts>
#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <variant>

// LIST as the system describes an array: "(", one item per line, ")".
QString HXListDescription(const QStringList &list);

class HXFormatArg {
public:
    HXFormatArg(const QString &text) : m_value(text) {}
    HXFormatArg(QStringView text) : m_value(text.toString()) {}
    HXFormatArg(const char *text) : m_value(text ? QString::fromUtf8(text) : QStringLiteral("(null)")) {}
    HXFormatArg(const std::string &text) : m_value(QString::fromStdString(text)) {}
    HXFormatArg(std::string_view text)
        : m_value(QString::fromUtf8(text.data(), static_cast<qsizetype>(text.size())))
    {
    }
    HXFormatArg(const QVariant &value) : m_value(value.toString()) {}
    // A list formats as the system describes one: "(\n    a,\n    \"b c\"\n)".
    HXFormatArg(const QStringList &list) : m_value(HXListDescription(list)) {}
    HXFormatArg(const std::optional<QString> &text) : m_value(text ? *text : QStringLiteral("(null)")) {}
    HXFormatArg(bool value) : m_value(static_cast<long long>(value)) {}
    template <std::signed_integral T> HXFormatArg(T value) : m_value(static_cast<long long>(value)) {}
    template <std::unsigned_integral T>
    requires(!std::same_as<T, bool>) HXFormatArg(T value) : m_value(static_cast<unsigned long long>(value)) {}
    template <std::floating_point T> HXFormatArg(T value) : m_value(static_cast<double>(value)) {}
    HXFormatArg(const void *pointer) : m_value(pointer) {}

    using Value = std::variant<QString, long long, unsigned long long, double, const void *>;
    const Value &value() const { return m_value; }

private:
    Value m_value;
};

// Formats FORMAT with ARGS. A conversion without an argument formats as nothing,
// "%%" is one "%", and an incomplete conversion at the end is dropped.
QString HXFormatList(QStringView format, std::initializer_list<HXFormatArg> args);

template <typename... Args> QString HXFormat(QStringView format, const Args &...args)
{
    return HXFormatList(format, {HXFormatArg(args)...});
}
