#include "platform/linux/PropertyList.hpp"

#include <plist/plist.h>

#include <cstdint>
#include <cstdlib>
#include <memory>

#include "platform/linux/Files.hpp"

namespace vntr {

namespace {

struct PlistFree {
  void operator()(void* node) const { plist_free(static_cast<plist_t>(node)); }
};
using PlistHandle = std::unique_ptr<void, PlistFree>;

struct CFree {
  void operator()(char* text) const { std::free(text); }
};
using CString = std::unique_ptr<char, CFree>;

std::optional<std::string> stringValue(plist_t node) {
  if (node == nullptr || plist_get_node_type(node) != PLIST_STRING) return std::nullopt;
  char* raw = nullptr;
  plist_get_string_val(node, &raw);
  CString value(raw);
  return value ? std::string(value.get()) : std::string();
}

}  // namespace

std::optional<PropertyListDictionary> readPropertyListDictionary(
    const std::filesystem::path& file) {
  const auto bytes = readFileBounded(file, kMaxPropertyListBytes);
  if (!bytes || bytes->empty()) return std::nullopt;

  plist_t rawRoot = nullptr;
  plist_from_memory(bytes->data(), static_cast<uint32_t>(bytes->size()), &rawRoot);
  PlistHandle root(rawRoot);
  if (!root || plist_get_node_type(rawRoot) != PLIST_DICT) return std::nullopt;

  PropertyListDictionary entries;
  plist_dict_iter iterator = nullptr;
  plist_dict_new_iter(rawRoot, &iterator);
  if (iterator == nullptr) return std::nullopt;
  // The dictionary's size bounds the walk; a malformed node cannot make it endless.
  const uint32_t size = plist_dict_get_size(rawRoot);
  for (uint32_t i = 0; i < size; ++i) {
    char* rawKey = nullptr;
    plist_t value = nullptr;
    plist_dict_next_item(rawRoot, iterator, &rawKey, &value);
    CString key(rawKey);
    if (!key || value == nullptr) break;
    entries.emplace(key.get(), stringValue(value));
  }
  std::free(iterator);
  return entries;
}

}  // namespace vntr
