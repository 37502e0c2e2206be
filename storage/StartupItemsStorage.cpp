#include "storage/StartupItemsStorage.h"

#include "support/LogDLL.h"
#include "support/ScopeTrace.h"

#include <picojson.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cwchar>
#include <fstream>
#include <iterator>
#include <limits>
#include <new>
#include <optional>
#include <stdexcept>
#include <string>
#include <unordered_set>

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
    std::wstring text(bytes.size(), L'\0');
    std::transform(bytes.begin(), bytes.end(), text.begin(), [](char byte) {
        return static_cast<wchar_t>(static_cast<std::int16_t>(static_cast<signed char>(byte)));
    });
    return text;
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

// The file is read whole into memory first: parsing from a string is several times faster
// than picojson's character-by-character reading of a stream.
//
// Both directions use binary streams. The C runtime's text-mode translation changes nothing
// that can be observed here and makes reading and writing the file several times slower: on
// reading, CR LF becomes LF and 0x1A ends the input, but CR and LF are only ever whitespace to
// the parser, raw control bytes inside strings are syntax errors, and text after the value is
// ignored, so every file parses to the same result either way; on writing, the compact output
// holds no line feed to translate.
bool ReadWholeFile(std::ifstream& in, std::string& text)
{
    in.seekg(0, std::ios::end);
    const std::streamoff size = in.tellg();
    in.seekg(0, std::ios::beg);
    if (size < 0 || !in) {
        return false;
    }
    text.resize(static_cast<size_t>(size));
    in.read(text.data(), size);
    // A file that shrank meanwhile is parsed as far as it goes.
    text.resize(static_cast<size_t>(in.gcount()));
    return !in.bad();
}

// Succeeds only when the file opened, parsed without error and holds something other than
// null. On failure the document is left null, never half-parsed.
bool ReadDocument(const wchar_t* path, value& document)
{
    document = value();
    if (path == nullptr) {
        return false;
    }
    std::ifstream in(path, std::ios::in | std::ios::binary);
    std::string text;
    std::string error;
    bool rejected = false;
    try {
        if (!in.is_open() || !ReadWholeFile(in, text)) {
            return false;
        }
        BoundedParseContext context(&document, &rejected);
        picojson::_parse(context, text.cbegin(), text.cend(), &error);
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

// Opening truncates the file: a failure after that leaves it as the file system leaves it.
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

const value* FindMember(const value& container, const char* key)
{
    const object& members = container.get<object>();
    const auto found = members.find(key);
    return found == members.end() ? nullptr : &found->second;
}

// The item keys as strings, so that the lookups in every stored item build no temporaries.
const std::string kCmdField = kCmdKey;
const std::string kNameField = kNameKey;
const std::string kPathField = kPathKey;
const std::string kBkpPathField = kBkpPathKey;
const std::string kChangedTimeField = kChangedTimeKey;

const std::string* FindString(const object& fields, const std::string& key)
{
    const auto found = fields.find(key);
    if (found == fields.end() || !found->second.is<std::string>()) {
        return nullptr;
    }
    return &found->second.get<std::string>();
}

template <typename T> bool IsAbsentNullOr(const value* member)
{
    return member == nullptr || member->is<picojson::null>() || member->is<T>();
}

// Whether the document has the shape the store writes, as far as the given section is
// concerned: an object at the top, scope members that are objects (or absent or null), and
// the section in each of them an array (or absent or null). Anything else is left unread.
bool HasExpectedShape(const value& document, const std::string& section)
{
    if (!document.is<object>()) {
        return false;
    }
    for (const char* scope : {kUserScope, kSystemScope}) {
        const value* member = FindMember(document, scope);
        if (!IsAbsentNullOr<object>(member)) {
            return false;
        }
        if (member != nullptr && member->is<object>() &&
            !IsAbsentNullOr<array>(FindMember(*member, section.c_str()))) {
            return false;
        }
    }
    return true;
}

// Replaces whatever HasExpectedShape rejects with an empty object or array, keeping the rest.
void RestoreExpectedShape(value& document, const std::string& section)
{
    if (!document.is<object>()) {
        document = value(picojson::object_type, false);
    }
    object& scopes = document.get<object>();
    for (const char* scope : {kUserScope, kSystemScope}) {
        const auto member = scopes.find(scope);
        if (member == scopes.end() || member->second.is<picojson::null>()) {
            continue;
        }
        if (!member->second.is<object>()) {
            member->second = value(picojson::object_type, false);
            continue;
        }
        object& sections = member->second.get<object>();
        const auto list = sections.find(section);
        if (list != sections.end() && !IsAbsentNullOr<array>(&list->second)) {
            list->second = value(picojson::array_type, false);
        }
    }
}

// An element is an item when "Cmd", "Name" and "Path" are strings; "BkpPath" and
// "ChangedTime" are taken only when they have the right type. On failure the record is untouched.
bool ParseItem(const value& element, StartupItem& item)
{
    if (!element.is<object>()) {
        return false;
    }
    const object& fields = element.get<object>();
    const std::string* cmd = FindString(fields, kCmdField);
    const std::string* name = FindString(fields, kNameField);
    const std::string* path = FindString(fields, kPathField);
    if (cmd == nullptr || name == nullptr || path == nullptr) {
        return false;
    }
    if (const std::string* backup = FindString(fields, kBkpPathField)) {
        item.BkpPath = FromStoredBytes(*backup);
    }
    const auto changed = fields.find(kChangedTimeField);
    if (changed != fields.end() && changed->second.is<double>()) {
        item.ChangedTime = ToChangedTime(changed->second.get<double>());
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

void LoadScope(const value& document, const char* scope, bool isUser, const std::string& section,
               StartupItemList& items, const wchar_t* function)
{
    const value* member = FindMember(document, scope);
    if (member == nullptr || member->is<picojson::null>()) {
        return;
    }
    QM_LOG_INFO(function, L"strSection: %S", section.c_str());
    const value* list = FindMember(*member, section.c_str());
    if (list == nullptr || !list->is<array>()) {
        return;
    }
    for (const value& element : list->get<array>()) {
        StartupItem item;
        if (ParseItem(element, item)) {
            item.IsUser = isUser;
            items.push_back(std::move(item));
        }
    }
}

// The section array of one scope, with the scope and the section created where missing or null.
array& SectionForAppend(object& scopes, const char* scope, const std::string& section)
{
    value& member = scopes[scope];
    if (member.is<picojson::null>()) {
        member = value(picojson::object_type, false);
    }
    value& list = member.get<object>()[section];
    if (list.is<picojson::null>()) {
        list = value(picojson::array_type, false);
    }
    return list.get<array>();
}

void AppendItems(object& scopes, const char* scope, const std::string& section,
                 const SharedStartupItemList& items, bool isUser)
{
    array* list = nullptr;
    for (const SharedStartupItem& item : items) {
        if (item && item->IsUser == isUser) {
            if (list == nullptr) {
                list = &SectionForAppend(scopes, scope, section);
            }
            list->push_back(SerializeItem(*item));
        }
    }
}

// The (Name, Path) pairs to remove from one scope, held as the bytes the file stores, so that a
// stored element is matched with one hash lookup and no conversion.
class RemovalSet {
public:
    void Add(const StartupItem& item)
    {
        m_hasItems = true;
        const auto name = StoredFormOf(item.Name);
        const auto path = StoredFormOf(item.Path);
        if (name && path) {  // otherwise no stored element can read back as this item
            m_keys.insert(Compose(*name, *path));
        }
    }
    bool HasItems() const noexcept { return m_hasItems; }

    // Elements that are not items never match and are kept.
    bool Matches(const value& element)
    {
        if (m_keys.empty() || !element.is<object>()) {
            return false;
        }
        const object& fields = element.get<object>();
        const std::string* name = FindString(fields, kNameField);
        const std::string* path = FindString(fields, kPathField);
        if (name == nullptr || path == nullptr || FindString(fields, kCmdField) == nullptr) {
            return false;
        }
        ComposeInto(m_probe, *name, *path);
        return m_keys.count(m_probe) != 0;
    }

private:
    // The name's length goes first so that no two pairs share a key.
    static void ComposeInto(std::string& key, const std::string& name, const std::string& path)
    {
        const std::uint64_t length = name.size();
        key.assign(reinterpret_cast<const char*>(&length), sizeof(length));
        key.append(name).append(path);
    }
    static std::string Compose(const std::string& name, const std::string& path)
    {
        std::string key;
        ComposeInto(key, name, path);
        return key;
    }

    std::unordered_set<std::string> m_keys;
    std::string m_probe;
    bool m_hasItems = false;
};

void RemoveFromScope(object& scopes, const char* scope, const std::string& section,
                     RemovalSet& removals)
{
    value& member = scopes[scope];
    if (member.is<picojson::null>()) {
        member = value(picojson::object_type, false);
    }
    // A missing section is written back as null, as the file has always been.
    value& list = member.get<object>()[section];
    if (!list.is<array>()) {
        return;
    }
    // One pass that keeps the survivors in order: erasing element by element would move the
    // tail of the array once per match.
    array& elements = list.get<array>();
    const auto kept = std::remove_if(elements.begin(), elements.end(),
                                     [&removals](const value& element) { return removals.Matches(element); });
    elements.erase(kept, elements.end());
}

} // namespace

CStartupItemsStorage& CStartupItemsStorage::Instance()
{
    static CStartupItemsStorage store;
    return store;
}

DWORD CStartupItemsStorage::Init(const wchar_t* path)
{
    logging::ScopeTrace trace(L"CStartupItemsStorage::Init");
    const size_t length = path ? wcslen(path) : 0;
    m_path = std::make_unique<wchar_t[]>(length + 1);
    wmemcpy(m_path.get(), path ? path : L"", length);
    QM_LOG_INFO(trace.FunctionName(), L"storage=%s", m_path.get());

    std::ifstream probe(m_path.get());
    m_fileAbsent = !probe.is_open();
    return ERROR_SUCCESS;
}

DWORD CStartupItemsStorage::LoadStartupItems(const char* section, StartupItemList& items)
{
    logging::ScopeTrace trace(L"CStartupItemsStorage::LoadStartupItems");
    const std::string sectionName = section ? section : "";
    value document;
    if (!ReadDocument(m_path.get(), document) || !HasExpectedShape(document, sectionName)) {
        return ERROR_GEN_FAILURE;
    }
    LoadScope(document, kUserScope, true, sectionName, items, trace.FunctionName());
    LoadScope(document, kSystemScope, false, sectionName, items, trace.FunctionName());
    return ERROR_SUCCESS;
}

DWORD CStartupItemsStorage::SaveStartupItems(const SharedStartupItemList& items, const char* section)
{
    logging::ScopeTrace trace(L"CStartupItemsStorage::SaveStartupItems");
    if (items.empty()) {
        return ERROR_SUCCESS;
    }
    const std::string sectionName = section ? section : "";
    value document;
    if (!ReadDocument(m_path.get(), document) || !HasExpectedShape(document, sectionName)) {
        QM_LOG_INFO(trace.FunctionName(), L"Failed load file");
        RestoreExpectedShape(document, sectionName);
    }
    object& scopes = document.get<object>();
    AppendItems(scopes, kUserScope, sectionName, items, true);
    AppendItems(scopes, kSystemScope, sectionName, items, false);

    if (!WriteDocument(m_path.get(), document)) {
        QM_LOG_ERROR(trace.FunctionName(), L"Save failed");
        return ERROR_GEN_FAILURE;
    }
    return ERROR_SUCCESS;
}

DWORD CStartupItemsStorage::SaveStartupItems(const StartupItem& item, const char* section)
{
    const SharedStartupItemList items{std::make_shared<StartupItem>(item)};
    return SaveStartupItems(items, section);
}

DWORD CStartupItemsStorage::RemoveStartupItems(const SharedStartupItemList& items, const char* section)
{
    logging::ScopeTrace trace(L"CStartupItemsStorage::RemoveStartupItems");
    if (items.empty()) {
        return ERROR_SUCCESS;
    }
    const std::string sectionName = section ? section : "";
    value document;
    // A file that cannot be read is never rewritten: its contents might still matter to someone.
    if (!ReadDocument(m_path.get(), document) || !HasExpectedShape(document, sectionName)) {
        QM_LOG_INFO(trace.FunctionName(), L"Failed load file");
        return ERROR_SUCCESS;
    }
    RemovalSet userRemovals;
    RemovalSet systemRemovals;
    for (const SharedStartupItem& item : items) {
        if (item) {
            (item->IsUser ? userRemovals : systemRemovals).Add(*item);
        }
    }
    object& scopes = document.get<object>();
    if (userRemovals.HasItems()) {
        RemoveFromScope(scopes, kUserScope, sectionName, userRemovals);
    }
    if (systemRemovals.HasItems()) {
        RemoveFromScope(scopes, kSystemScope, sectionName, systemRemovals);
    }

    if (!WriteDocument(m_path.get(), document)) {
        QM_LOG_ERROR(trace.FunctionName(), L"Save failed");
        return ERROR_GEN_FAILURE;
    }
    return ERROR_SUCCESS;
}

} // namespace storage
