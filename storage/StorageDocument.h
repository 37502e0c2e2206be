// Storage.json as bytes and as JSON: reading and writing the whole document, and the encoding
// of one saved item in it. The store decides what the document holds; this file, how it is
// kept.
#pragma once

#include "storage/StartupItem.h"

#include <picojson.h>

#include <optional>
#include <string>
#include <utility>

namespace storage {

// Succeeds only when the file opened, parsed without error and holds something other than
// null. On failure the document is left null, never half-parsed.
bool ReadDocument(const wchar_t* path, picojson::value& document);
// Writes the document compactly in place of the file. Opening truncates the file: a failure
// after that leaves it as the file system leaves it.
bool WriteDocument(const wchar_t* path, const picojson::value& document);

// An element is an item when "Cmd", "Name" and "Path" are strings; "BkpPath" and
// "ChangedTime" are taken only when they have the right type. On failure the record is
// untouched. IsUser is not stored in the item: the scope that holds it says.
bool ParseItem(const picojson::value& element, StartupItem& item);
picojson::value SerializeItem(const StartupItem& item);

// (Path, Name) as the file stores them: what decides that a stored item is a given item.
using StoredKey = std::pair<std::string, std::string>;
// The key of a stored element that is an item; none for any other element.
std::optional<StoredKey> StoredKeyOf(const picojson::value& element);
// The key of the stored elements that read back as this item; none when no element can.
std::optional<StoredKey> StoredKeyOf(const StartupItem& item);

} // namespace storage
