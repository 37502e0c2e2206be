// Log formats checked against their arguments by the compiler. The library formats with the
// Microsoft printf rules (%s a wide string, %S a narrow one); this program uses %s, %S, %d, %x,
// %lld and %%. A wrong argument to a variadic call is silent undefined behaviour (a
// std::wstring without .c_str(), a 64-bit number for %d), so such a call must not build.
#pragma once

#include <cstddef>
#include <type_traits>

namespace logging {

// What a conversion reads once the variadic call has promoted the argument.
enum class LogArgKind { WideText, NarrowText, Int32, Int64, Unsupported };

template <typename T>
consteval LogArgKind LogArgKindOf()
{
    using Decayed = std::decay_t<T>;
    if constexpr (std::is_pointer_v<Decayed>) {
        using Pointee = std::remove_cv_t<std::remove_pointer_t<Decayed>>;
        if constexpr (std::is_same_v<Pointee, wchar_t>) {
            return LogArgKind::WideText;
        } else if constexpr (std::is_same_v<Pointee, char>) {
            return LogArgKind::NarrowText;
        } else {
            return LogArgKind::Unsupported;
        }
    } else if constexpr (std::is_integral_v<Decayed> && !std::is_same_v<Decayed, bool>) {
        if constexpr (sizeof(Decayed) <= 4) {
            return LogArgKind::Int32;
        } else {
            return sizeof(Decayed) == 8 ? LogArgKind::Int64 : LogArgKind::Unsupported;
        }
    } else {
        return LogArgKind::Unsupported;
    }
}

// The conversion that starts at format[i], just past its '%'; moves i past it.
consteval LogArgKind LogConversionAt(const wchar_t* format, std::size_t& i)
{
    switch (format[i]) {
    case L's':
        ++i;
        return LogArgKind::WideText;
    case L'S':
        ++i;
        return LogArgKind::NarrowText;
    case L'd':
    case L'x':
        ++i;
        return LogArgKind::Int32;
    case L'l':
        if (format[i + 1] == L'l' && format[i + 2] == L'd') {
            i += 3;
            return LogArgKind::Int64;
        }
        return LogArgKind::Unsupported;
    default:
        return LogArgKind::Unsupported;
    }
}

template <typename... Args>
consteval bool LogFormatMatches(const wchar_t* format)
{
    constexpr LogArgKind kinds[] = {LogArgKindOf<Args>()..., LogArgKind::Unsupported};
    std::size_t argument = 0;
    for (std::size_t i = 0; format[i] != L'\0';) {
        if (format[i++] != L'%') {
            continue;
        }
        if (format[i] == L'%') {
            ++i;
            continue;
        }
        const LogArgKind wanted = LogConversionAt(format, i);
        if (wanted == LogArgKind::Unsupported || argument == sizeof...(Args) || kinds[argument] != wanted) {
            return false;
        }
        ++argument;
    }
    return argument == sizeof...(Args);
}

// Never defined: reaching it while a format is checked stops the build, and the compiler's
// message names it.
void LogFormatDoesNotMatchItsArguments();

// A format literal, accepted only when its conversions take Args, in order and in number.
template <typename... Args>
class LogFormat {
public:
    template <std::size_t N>
    consteval LogFormat(const wchar_t (&text)[N]) : m_text(text)  // NOLINT: converts on purpose
    {
        if (!LogFormatMatches<Args...>(text)) {
            LogFormatDoesNotMatchItsArguments();
        }
    }
    const wchar_t* Text() const noexcept { return m_text; }

private:
    const wchar_t* m_text;
};

} // namespace logging
