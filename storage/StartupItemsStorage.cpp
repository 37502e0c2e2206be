#include "storage/StartupItemsStorage.h"

#include "storage/StorageDocument.h"
#include "support/LogDLL.h"
#include "support/ScopeTrace.h"

#include <picojson.h>

#include <algorithm>
#include <cwchar>
#include <fstream>
#include <set>
#include <string>

namespace storage {

namespace {

using picojson::array;
using picojson::object;
using picojson::value;

// Value is picojson::value, const or not.
template <typename Value>
Value* FindMember(Value& container, const char* key)
{
    auto& members = container.template get<object>();
    const auto found = members.find(key);
    return found == members.end() ? nullptr : &found->second;
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
        StartupItem& item = items.emplace_back();  // filled in place: no copy per item
        if (ParseItem(element, item)) {
            item.IsUser = isUser;
        } else {
            items.pop_back();
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

// The keys of the items of one scope that are to leave it.
std::set<StoredKey> KeysToRemove(const SharedStartupItemList& items, bool isUser)
{
    std::set<StoredKey> keys;
    for (const SharedStartupItem& item : items) {
        if (item && item->IsUser == isUser) {
            if (auto key = StoredKeyOf(*item)) {  // otherwise no stored element reads back as it
                keys.insert(std::move(*key));
            }
        }
    }
    return keys;
}

bool HasItemOfScope(const SharedStartupItemList& items, bool isUser)
{
    return std::any_of(items.begin(), items.end(),
                       [isUser](const SharedStartupItem& item) { return item && item->IsUser == isUser; });
}

// Elements that are not items never match and are kept.
void RemoveFromScope(object& scopes, const char* scope, const std::string& section,
                     const std::set<StoredKey>& keys)
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
    array& elements = list.get<array>();
    const auto kept = std::remove_if(elements.begin(), elements.end(), [&keys](const value& element) {
        const auto key = StoredKeyOf(element);
        return key && keys.count(*key) != 0;
    });
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
    object& scopes = document.get<object>();
    if (HasItemOfScope(items, true)) {
        RemoveFromScope(scopes, kUserScope, sectionName, KeysToRemove(items, true));
    }
    if (HasItemOfScope(items, false)) {
        RemoveFromScope(scopes, kSystemScope, sectionName, KeysToRemove(items, false));
    }

    if (!WriteDocument(m_path.get(), document)) {
        QM_LOG_ERROR(trace.FunctionName(), L"Save failed");
        return ERROR_GEN_FAILURE;
    }
    return ERROR_SUCCESS;
}

} // namespace storage
