#include "storage/StorageDocument.h"

#include "support/Handles.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <fstream>
#include <iterator>
#include <limits>
#include <memory>
#include <new>
#include <stdexcept>

namespace storage {

namespace {

using picojson::array;
using picojson::object;
using picojson::value;

// The file keeps one byte per UTF-16 code unit: the low byte on the way out, and the byte
// sign-extended on the way back. Lossy above U+007F, but files already written this way have
// to read back as they always have.
std::string ToStoredBytes(const std::wstring& text)
{
    std::string bytes(text.size(), '\0');
    std::transform(text.begin(), text.end(), bytes.begin(),
                   [](wchar_t unit) { return static_cast<char>(unit & 0xFF); });
    return bytes;
}

std::wstring FromStoredBytes(const std::string& bytes)
{
    // char is signed here, so each byte widens to wchar_t sign-extended, as the file is read.
    static_assert(std::is_signed_v<char>, "the store's bytes are read as signed");
    return std::wstring(bytes.begin(), bytes.end());
}

// The bytes that read back as exactly this text, if any: only code units up to U+007F and
// from U+FF80 survive a round trip through the file.
std::optional<std::string> StoredFormOf(const std::wstring& text)
{
    std::string bytes;
    bytes.reserve(text.size());
    for (const wchar_t unit : text) {
        if (unit > 0x7F && unit < 0xFF80) {
            return std::nullopt;
        }
        bytes.push_back(static_cast<char>(unit & 0xFF));
    }
    return bytes;
}

// Truncates toward zero. JSON numbers beyond the 64-bit range saturate instead of hitting the
// undefined behaviour of an out-of-range conversion.
std::int64_t ToChangedTime(double number)
{
    constexpr double kLimit = 9223372036854775808.0;  // 2^63
    if (std::isnan(number)) {
        return 0;
    }
    if (number >= kLimit) {
        return std::numeric_limits<std::int64_t>::max();
    }
    if (number < -kLimit) {
        return std::numeric_limits<std::int64_t>::min();
    }
    return static_cast<std::int64_t>(number);
}

// picojson's own parse context bounds the nesting of arrays but not of objects, so a file of
// nested objects would recurse until the stack runs out; and a number such as 1e400 makes it
// throw. This context behaves the same for everything else, with objects bounded like arrays
// and a non-finite number recorded as a failure (picojson ignores what set_number returns).
class BoundedParseContext {
public:
    BoundedParseContext(value* out, bool* rejected, size_t arrayDepth = picojson::DEFAULT_MAX_DEPTHS,
                        size_t objectDepth = picojson::DEFAULT_MAX_DEPTHS)
        : m_out(out), m_rejected(rejected), m_arrayDepth(arrayDepth), m_objectDepth(objectDepth)
    {
    }
    BoundedParseContext(const BoundedParseContext&) = delete;
    BoundedParseContext& operator=(const BoundedParseContext&) = delete;

    bool set_null()
    {
        *m_out = value();
        return true;
    }
    bool set_bool(bool flag)
    {
        *m_out = value(flag);
        return true;
    }
    bool set_number(double number)
    {
        if (!std::isfinite(number)) {
            *m_rejected = true;
            return false;
        }
        *m_out = value(number);
        return true;
    }
    template <typename Iter> bool parse_string(picojson::input<Iter>& in)
    {
        *m_out = value(picojson::string_type, false);
        return picojson::_parse_string(m_out->get<std::string>(), in);
    }
    bool parse_array_start()
    {
        if (m_arrayDepth == 0) {
            return false;
        }
        --m_arrayDepth;
        *m_out = value(picojson::array_type, false);
        return true;
    }
    template <typename Iter> bool parse_array_item(picojson::input<Iter>& in, size_t)
    {
        array& elements = m_out->get<array>();
        elements.emplace_back();
        BoundedParseContext child(&elements.back(), m_rejected, m_arrayDepth, m_objectDepth);
        return picojson::_parse(child, in) && !*m_rejected;
    }
    bool parse_array_stop(size_t)
    {
        ++m_arrayDepth;
        return true;
    }
    bool parse_object_start()
    {
        if (m_objectDepth == 0) {
            return false;
        }
        --m_objectDepth;
        *m_out = value(picojson::object_type, false);
        return true;
    }
    template <typename Iter> bool parse_object_item(picojson::input<Iter>& in, const std::string& key)
    {
        BoundedParseContext child(&m_out->get<object>()[key], m_rejected, m_arrayDepth, m_objectDepth);
        return picojson::_parse(child, in) && !*m_rejected;
    }
    bool parse_object_stop()
    {
        ++m_objectDepth;
        return true;
    }

private:
    value* m_out;
    bool* m_rejected;
    size_t m_arrayDepth;
    size_t m_objectDepth;
};

// The file is read whole into memory, in one read, before it is parsed: parsing from memory is
// several times faster than picojson's character-by-character reading of a stream. Bytes are
// taken as they are, with no text-mode translation: CR and LF are only ever whitespace to the
// parser, raw control bytes inside strings are syntax errors and text after the value is
// ignored, so every file parses as it would after translation. (A mapped view would spare the
// copy, but while it exists another process cannot truncate the file to save it.)
// The file's bytes; false when it cannot be opened or read. A file that shrank meanwhile is
// parsed as far as it goes.
bool ReadWholeFile(const wchar_t* path, std::unique_ptr<char[]>& bytes, DWORD& length)
{
    const support::UniqueFile file(CreateFileW(path, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                               nullptr,  // default security
                                               OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
    LARGE_INTEGER size{};
    if (!file || !GetFileSizeEx(file.get(), &size) || size.QuadPart > static_cast<LONGLONG>(MAXDWORD / 2)) {
        return false;  // a file too large to hold is as unreadable as a damaged one
    }
    // Not zero-filled first: only the bytes read are ever looked at.
    bytes = std::make_unique_for_overwrite<char[]>(static_cast<size_t>(size.QuadPart));
    return ReadFile(file.get(), bytes.get(), static_cast<DWORD>(size.QuadPart), &length, nullptr) != FALSE;
}

const std::string* FindString(const object& fields, const char* key)
{
    const auto found = fields.find(key);
    if (found == fields.end() || !found->second.is<std::string>()) {
        return nullptr;
    }
    return &found->second.get<std::string>();
}

} // namespace

bool ReadDocument(const wchar_t* path, value& document)
{
    document = value();
    if (path == nullptr) {
        return false;
    }
    std::unique_ptr<char[]> bytes;
    DWORD length = 0;
    std::string error;
    bool rejected = false;
    try {
        if (!ReadWholeFile(path, bytes, length)) {
            return false;
        }
        BoundedParseContext context(&document, &rejected);
        picojson::_parse(context, bytes.get(), bytes.get() + length, &error);
    } catch (const std::bad_alloc&) {  // a file too large to hold is as unreadable as a damaged one
        rejected = true;
    } catch (const std::length_error&) {
        rejected = true;
    }
    if (rejected || !error.empty() || document.is<picojson::null>()) {
        document = value();
        return false;
    }
    return true;
}

bool WriteDocument(const wchar_t* path, const value& document)
{
    if (path == nullptr) {
        return false;
    }
    std::string text;
    document.serialize(std::back_inserter(text));
    std::ofstream out(path, std::ios::out | std::ios::trunc | std::ios::binary);
    if (!out.is_open()) {
        return false;
    }
    out.write(text.data(), static_cast<std::streamsize>(text.size()));
    out.close();
    return out.good();
}

bool ParseItem(const value& element, StartupItem& item)
{
    if (!element.is<object>()) {
        return false;
    }
    // One pass over the item's few members rather than a lookup (and a key string) per field.
    const std::string* cmd = nullptr;
    const std::string* name = nullptr;
    const std::string* path = nullptr;
    const std::string* backup = nullptr;
    const value* changed = nullptr;
    for (const auto& [key, field] : element.get<object>()) {
        const std::string* text = field.is<std::string>() ? &field.get<std::string>() : nullptr;
        if (key == kCmdKey) {
            cmd = text;
        } else if (key == kNameKey) {
            name = text;
        } else if (key == kPathKey) {
            path = text;
        } else if (key == kBkpPathKey) {
            backup = text;
        } else if (key == kChangedTimeKey) {
            changed = &field;
        }
    }
    if (cmd == nullptr || name == nullptr || path == nullptr) {
        return false;
    }
    if (backup != nullptr) {
        item.BkpPath = FromStoredBytes(*backup);
    }
    if (changed != nullptr && changed->is<double>()) {
        item.ChangedTime = ToChangedTime(changed->get<double>());
    }
    item.Cmd = FromStoredBytes(*cmd);
    item.Path = FromStoredBytes(*path);
    item.Name = FromStoredBytes(*name);
    return true;
}

value SerializeItem(const StartupItem& item)
{
    object fields;
    fields.emplace(kNameKey, value(ToStoredBytes(item.Name)));
    fields.emplace(kCmdKey, value(ToStoredBytes(item.Cmd)));
    fields.emplace(kPathKey, value(ToStoredBytes(item.Path)));
    fields.emplace(kBkpPathKey, value(ToStoredBytes(item.BkpPath)));
    fields.emplace(kChangedTimeKey, value(static_cast<double>(item.ChangedTime)));
    return value(std::move(fields));
}

std::optional<StoredKey> StoredKeyOf(const value& element)
{
    if (!element.is<object>()) {
        return std::nullopt;
    }
    const object& fields = element.get<object>();
    const std::string* path = FindString(fields, kPathKey);
    const std::string* name = FindString(fields, kNameKey);
    if (path == nullptr || name == nullptr || FindString(fields, kCmdKey) == nullptr) {
        return std::nullopt;
    }
    return StoredKey(*path, *name);
}

std::optional<StoredKey> StoredKeyOf(const StartupItem& item)
{
    auto path = StoredFormOf(item.Path);
    auto name = StoredFormOf(item.Name);
    if (!path || !name) {
        return std::nullopt;
    }
    return StoredKey(std::move(*path), std::move(*name));
}

} // namespace storage
