#include "platform/linux/PropertyList.hpp"

#include <plist/plist.h>

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string_view>

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
  uint64_t length = 0;
  const char* text = plist_get_string_ptr(node, &length);
  return text != nullptr ? std::string(text, length) : std::string();
}

uint64_t bigEndian(const char* bytes, size_t count) {
  uint64_t value = 0;
  for (size_t i = 0; i < count; ++i) value = (value << 8) | static_cast<unsigned char>(bytes[i]);
  return value;
}

// Whether a string object of a binary property list holds U+0000. Objects that do not fit in
// the file are left to the parser, which rejects them.
bool binaryStringHoldsNul(std::string_view bytes, uint64_t offset) {
  const auto marker = static_cast<unsigned char>(bytes[offset]);
  const unsigned kind = marker >> 4;
  if (kind != 0x5 && kind != 0x6) return false;  // ASCII and UTF-16 strings
  uint64_t count = marker & 0x0F;
  uint64_t start = offset + 1;
  if (count == 0x0F) {  // the length follows as an integer object
    if (start >= bytes.size()) return false;
    const auto lengthMarker = static_cast<unsigned char>(bytes[start]);
    const size_t width = size_t{1} << (lengthMarker & 0x0F);
    if ((lengthMarker >> 4) != 0x1 || width > 8 || bytes.size() - start - 1 < width) return false;
    count = bigEndian(bytes.data() + start + 1, width);
    start += 1 + width;
  }
  const uint64_t unit = kind == 0x6 ? 2 : 1;
  if (start > bytes.size() || count > (bytes.size() - start) / unit) return false;
  for (uint64_t i = 0; i < count; ++i) {
    if (bigEndian(bytes.data() + start + i * unit, unit) == 0) return true;
  }
  return false;
}

// libplist asserts (and so aborts the process) when it hands out a key or string holding
// U+0000, which both formats can carry: a raw NUL byte in XML text, or a NUL character in a
// binary string object. Such a file is refused before it is parsed; XML cannot legally hold the
// byte at all.
bool holdsNulCharacter(std::string_view bytes) {
  if (plist_is_binary(bytes.data(), static_cast<uint32_t>(bytes.size())) == 0) {
    return bytes.find('\0') != std::string_view::npos;
  }
  constexpr size_t kTrailerSize = 32;
  if (bytes.size() < kTrailerSize + 8) return false;
  const char* trailer = bytes.data() + bytes.size() - kTrailerSize;
  const size_t offsetSize = static_cast<unsigned char>(trailer[6]);
  const uint64_t objects = bigEndian(trailer + 8, 8);
  const uint64_t table = bigEndian(trailer + 24, 8);
  const uint64_t tableEnd = bytes.size() - kTrailerSize;
  if (offsetSize == 0 || offsetSize > 8 || table > tableEnd ||
      objects > (tableEnd - table) / offsetSize) {
    return false;  // a broken trailer: the parser refuses the file
  }
  for (uint64_t i = 0; i < objects; ++i) {
    const uint64_t offset = bigEndian(bytes.data() + table + i * offsetSize, offsetSize);
    if (offset < bytes.size() && binaryStringHoldsNul(bytes, offset)) return true;
  }
  return false;
}

}  // namespace

std::optional<PropertyListDictionary> readPropertyListDictionary(
    const std::filesystem::path& file) {
  const auto bytes = readFileBounded(file, kMaxPropertyListBytes);
  if (!bytes || bytes->empty() || holdsNulCharacter(*bytes)) return std::nullopt;

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
