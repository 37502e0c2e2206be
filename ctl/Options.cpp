#include "ctl/Options.h"

#include <cerrno>
#include <cwchar>

namespace ctl {

namespace {

// A whole argument that is a signed 64-bit decimal number.
bool ReadNumber(const std::wstring& text, std::int64_t& number)
{
    if (text.empty()) {
        return false;
    }
    wchar_t* end = nullptr;
    errno = 0;
    const long long value = std::wcstoll(text.c_str(), &end, 10);
    if (errno != 0 || end != text.c_str() + text.size()) {
        return false;
    }
    number = value;
    return true;
}

// The value of an option written "--name value" or "--name=value".
bool TakeValue(const std::vector<std::wstring>& arguments, size_t& i, const std::wstring& inline_,
               bool hasInline, std::wstring& value)
{
    if (hasInline) {
        value = inline_;
        return true;
    }
    if (i + 1 >= arguments.size()) {
        return false;
    }
    value = arguments[++i];
    return true;
}

} // namespace

std::wstring ParseOptions(const std::vector<std::wstring>& arguments, Options& options)
{
    for (size_t i = 0; i < arguments.size(); ++i) {
        const std::wstring& argument = arguments[i];
        const size_t equals = argument.find(L'=');
        const bool hasInline = argument.rfind(L"--", 0) == 0 && equals != std::wstring::npos;
        const std::wstring name = hasInline ? argument.substr(0, equals) : argument;
        const std::wstring inlineValue = hasInline ? argument.substr(equals + 1) : std::wstring();
        std::wstring value;
        if (name == L"--json" && !hasInline) {
            options.json = true;
        } else if (name == L"--all" && !hasInline) {
            options.all = true;
        } else if ((name == L"--help" || name == L"-h" || name == L"/?") && !hasInline) {
            options.help = true;
        } else if (name == L"--version" && !hasInline) {
            options.version = true;
        } else if (name == L"--time") {
            std::int64_t number = 0;
            if (!TakeValue(arguments, i, inlineValue, hasInline, value) || !ReadNumber(value, number)) {
                return L"--time needs a whole number of seconds since 1970 (UTC)";
            }
            options.time = number;
        } else if (name == L"--store") {
            if (!TakeValue(arguments, i, inlineValue, hasInline, value) || value.empty()) {
                return L"--store needs a folder";
            }
            options.store = value;
        } else if (argument.size() > 1 && argument[0] == L'-') {
            return L"unknown option " + argument;
        } else if (options.command.empty()) {
            options.command = argument;
        } else {
            options.operands.push_back(argument);
        }
    }
    return {};
}

} // namespace ctl
