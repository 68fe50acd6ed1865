#include "system/HXFormat.h"

#include <cstdio>
#include <vector>

namespace {

struct Conversion {
    QString flags;
    int width = -1;
    int precision = -1;
    QChar type;
};

QString argumentAsText(const HXFormatArg::Value &value)
{
    return std::visit(
        [](const auto &v) -> QString {
            using T = std::decay_t<decltype(v)>;
            if constexpr (std::is_same_v<T, QString>)
                return v;
            else if constexpr (std::is_same_v<T, const void *>)
                return QString::asprintf("%p", v);
            else
                return QString::number(v);
        },
        value);
}

long long argumentAsSigned(const HXFormatArg::Value &value)
{
    if (auto p = std::get_if<long long>(&value))
        return *p;
    if (auto p = std::get_if<unsigned long long>(&value))
        return static_cast<long long>(*p);
    if (auto p = std::get_if<double>(&value))
        return static_cast<long long>(*p);
    if (auto p = std::get_if<QString>(&value))
        return p->toLongLong();
    return static_cast<long long>(reinterpret_cast<std::uintptr_t>(std::get<const void *>(value)));
}

double argumentAsDouble(const HXFormatArg::Value &value)
{
    if (auto p = std::get_if<double>(&value))
        return *p;
    if (auto p = std::get_if<QString>(&value))
        return p->toDouble();
    if (auto p = std::get_if<unsigned long long>(&value))
        return static_cast<double>(*p);
    return static_cast<double>(argumentAsSigned(value));
}

QString pad(QString text, const Conversion &conversion)
{
    if (conversion.precision >= 0 && text.size() > conversion.precision)
        text.truncate(conversion.precision);
    if (conversion.width > text.size()) {
        if (conversion.flags.contains(QLatin1Char('-')))
            text = text.leftJustified(conversion.width);
        else
            text = text.rightJustified(conversion.width);
    }
    return text;
}

QString formatNumber(const Conversion &conversion, const HXFormatArg::Value &value)
{
    QByteArray printfFormat = "%" + conversion.flags.toLatin1();
    if (conversion.width >= 0)
        printfFormat += QByteArray::number(conversion.width);
    if (conversion.precision >= 0)
        printfFormat += "." + QByteArray::number(conversion.precision);
    const char type = conversion.type.toLatin1();
    char buffer[512];
    switch (type) {
    case 'd':
    case 'i':
        printfFormat += "lld";
        std::snprintf(buffer, sizeof buffer, printfFormat.constData(), argumentAsSigned(value));
        break;
    case 'u':
    case 'o':
    case 'x':
    case 'X':
        printfFormat += "ll";
        printfFormat += type;
        std::snprintf(buffer, sizeof buffer, printfFormat.constData(),
                      static_cast<unsigned long long>(argumentAsSigned(value)));
        break;
    case 'c':
        printfFormat += 'c';
        std::snprintf(buffer, sizeof buffer, printfFormat.constData(),
                      static_cast<int>(argumentAsSigned(value)));
        break;
    default:  // f F e E g G a A
        printfFormat += type;
        std::snprintf(buffer, sizeof buffer, printfFormat.constData(), argumentAsDouble(value));
        break;
    }
    return QString::fromLatin1(buffer);
}

}  // namespace

QString HXListDescription(const QStringList &list)
{
    // Strings go bare only when made of the characters a property list leaves unquoted.
    const auto bare = [](const QString &text) {
        if (text.isEmpty())
            return false;
        for (const QChar c : text)
            if (!(c.isLetterOrNumber() && c.unicode() < 128) && !QStringView(u"_$+/:.-").contains(c))
                return false;
        return true;
    };
    QString out = QStringLiteral("(");
    for (qsizetype i = 0; i < list.size(); ++i) {
        QString item = list[i];
        if (!bare(item)) {
            item.replace(QLatin1Char('\\'), QStringLiteral("\\\\"))
                .replace(QLatin1Char('"'), QStringLiteral("\\\""))
                .replace(QLatin1Char('\n'), QStringLiteral("\\n"));
            item = QLatin1Char('"') + item + QLatin1Char('"');
        }
        out += QStringLiteral("\n    ") + item + (i + 1 < list.size() ? QStringLiteral(",") : QString());
    }
    return out + QStringLiteral("\n)");
}

QString HXFormatList(QStringView format, std::initializer_list<HXFormatArg> args)
{
    // The common cases: plain text, and one object as the whole format.
    if (!format.contains(QLatin1Char('%')))
        return format.toString();
    if (format == u"%@" && args.size() == 1)
        return argumentAsText(args.begin()->value());
    const std::vector<const HXFormatArg *> list = [&] {
        std::vector<const HXFormatArg *> out;
        for (const HXFormatArg &arg : args)
            out.push_back(&arg);
        return out;
    }();
    std::size_t next = 0;
    auto takeArgument = [&]() -> const HXFormatArg * { return next < list.size() ? list[next++] : nullptr; };

    QString out;
    out.reserve(format.size() + 16 * static_cast<qsizetype>(list.size()));
    const qsizetype length = format.size();
    for (qsizetype i = 0; i < length; ++i) {
        const QChar c = format[i];
        if (c != QLatin1Char('%')) {
            out.append(c);
            continue;
        }
        const qsizetype start = i;
        qsizetype j = i + 1;
        Conversion conversion;
        while (j < length && QStringView(u"-+ #0'").contains(format[j]))
            conversion.flags.append(format[j++]);
        conversion.flags.remove(QLatin1Char('\''));
        auto readNumber = [&](int *target) {
            if (j < length && format[j] == QLatin1Char('*')) {
                const HXFormatArg *arg = takeArgument();
                *target = arg ? static_cast<int>(argumentAsSigned(arg->value())) : -1;
                ++j;
                return;
            }
            int number = -1;
            while (j < length && format[j].isDigit()) {
                number = (number < 0 ? 0 : number * 10) + format[j].digitValue();
                ++j;
            }
            *target = number;
        };
        readNumber(&conversion.width);
        if (j < length && format[j] == QLatin1Char('.')) {
            ++j;
            readNumber(&conversion.precision);
            if (conversion.precision < 0)
                conversion.precision = 0;
        }
        while (j < length && QStringView(u"hlqLztj").contains(format[j]))
            ++j;
        if (j >= length)
            break;  // incomplete conversion at the end
        conversion.type = format[j];
        i = j;
        const char type = conversion.type.toLatin1();
        if (type == '%') {
            out.append(QLatin1Char('%'));
            continue;
        }
        if (!QByteArrayView("@sSdiuoxXcfFeEgGaAp").contains(type)) {
            out.append(format.mid(start, j - start + 1));  // not a conversion: keep the text
            continue;
        }
        const HXFormatArg *arg = takeArgument();
        if (arg == nullptr)
            continue;
        if (type == '@' || type == 's' || type == 'S' || type == 'p' ||
            (std::holds_alternative<QString>(arg->value()) && type != 'c'))
            out.append(pad(argumentAsText(arg->value()), conversion));
        else
            out.append(formatNumber(conversion, arg->value()));
    }
    return out;
}
