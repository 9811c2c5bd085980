#include "platform/linux/PropertyList.hpp"

#include <plist/plist.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string_view>
#include <utility>
#include <vector>

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

// The parts of a binary property list that locate its objects: the trailer's sizes and the
// offset table. Only a layout whose every object lies between the header and the table is
// accepted, which is how every writer lays the format out.
class BinaryLayout {
 public:
  static std::optional<BinaryLayout> make(std::string_view bytes) {
    constexpr size_t kHeaderSize = 8;
    constexpr size_t kTrailerSize = 32;
    if (bytes.size() < kHeaderSize + kTrailerSize) return std::nullopt;
    const char* trailer = bytes.data() + bytes.size() - kTrailerSize;
    BinaryLayout layout(bytes);
    layout.offsetSize_ = static_cast<unsigned char>(trailer[6]);
    layout.refSize_ = static_cast<unsigned char>(trailer[7]);
    layout.objects_ = bigEndian(trailer + 8, 8);
    layout.top_ = bigEndian(trailer + 16, 8);
    layout.table_ = bigEndian(trailer + 24, 8);
    const uint64_t tableEnd = bytes.size() - kTrailerSize;
    if (layout.offsetSize_ == 0 || layout.offsetSize_ > 8 || layout.refSize_ == 0 ||
        layout.refSize_ > 8 || layout.objects_ == 0 || layout.top_ >= layout.objects_ ||
        layout.table_ < kHeaderSize || layout.table_ > tableEnd ||
        layout.objects_ > (tableEnd - layout.table_) / layout.offsetSize_) {
      return std::nullopt;
    }
    for (uint64_t i = 0; i < layout.objects_; ++i) {
      const uint64_t offset = layout.offset(i);
      if (offset < kHeaderSize || offset >= layout.table_) return std::nullopt;
    }
    return layout;
  }

  uint64_t objects() const { return objects_; }
  uint64_t top() const { return top_; }
  uint64_t offset(uint64_t object) const {
    return bigEndian(bytes_.data() + table_ + object * offsetSize_, offsetSize_);
  }
  unsigned kind(uint64_t object) const {
    return static_cast<unsigned char>(bytes_[offset(object)]) >> 4;
  }

  /// Where an object's payload starts and how many elements it has, from the marker's low
  /// nibble or the integer object after it; nothing when that runs past the objects.
  std::optional<std::pair<uint64_t, uint64_t>> payload(uint64_t object) const {
    const uint64_t at = offset(object);
    uint64_t count = static_cast<unsigned char>(bytes_[at]) & 0x0F;
    uint64_t start = at + 1;
    if (count == 0x0F) {
      if (start >= table_) return std::nullopt;
      const auto marker = static_cast<unsigned char>(bytes_[start]);
      const uint64_t width = uint64_t{1} << (marker & 0x0F);
      if ((marker >> 4) != 0x1 || width > 8 || table_ - start - 1 < width) return std::nullopt;
      count = bigEndian(bytes_.data() + start + 1, width);
      start += 1 + width;
    }
    return std::make_pair(start, count);
  }

  /// The objects a container (array, set or dictionary) refers to, keys included.
  std::optional<std::vector<uint64_t>> children(uint64_t object) const {
    const unsigned k = kind(object);
    if (k != kArray && k != kSet && k != kDictionary) return std::vector<uint64_t>{};
    const auto found = payload(object);
    if (!found) return std::nullopt;
    const auto [start, count] = *found;
    const uint64_t refs = k == kDictionary ? 2 : 1;
    if (count > (table_ - start) / refSize_ / refs) return std::nullopt;
    std::vector<uint64_t> result;
    result.reserve(count * refs);
    for (uint64_t i = 0; i < count * refs; ++i) {
      const uint64_t child = bigEndian(bytes_.data() + start + i * refSize_, refSize_);
      if (child >= objects_) return std::nullopt;
      result.push_back(child);
    }
    return result;
  }

  /// Whether a string object holds U+0000; nothing when it runs past the objects.
  std::optional<bool> stringHoldsNul(uint64_t object) const {
    const unsigned k = kind(object);
    if (k != kAsciiString && k != kUtf16String) return false;
    const auto found = payload(object);
    if (!found) return std::nullopt;
    const auto [start, count] = *found;
    const uint64_t unit = k == kUtf16String ? 2 : 1;
    if (count > (table_ - start) / unit) return std::nullopt;
    for (uint64_t i = 0; i < count; ++i) {
      if (bigEndian(bytes_.data() + start + i * unit, unit) == 0) return true;
    }
    return false;
  }

 private:
  static constexpr unsigned kAsciiString = 0x5;
  static constexpr unsigned kUtf16String = 0x6;
  static constexpr unsigned kArray = 0xA;
  static constexpr unsigned kSet = 0xC;
  static constexpr unsigned kDictionary = 0xD;

  explicit BinaryLayout(std::string_view bytes) : bytes_(bytes) {}

  std::string_view bytes_;
  size_t offsetSize_ = 0;
  size_t refSize_ = 0;
  uint64_t objects_ = 0;
  uint64_t top_ = 0;
  uint64_t table_ = 0;
};

// Whether the containers reachable from the top object nest at most `limit` deep, walked
// without recursion; a cycle counts as too deep. Each object's height is computed once, so
// shared objects cannot make the walk explode.
bool binaryNestingWithin(const BinaryLayout& layout, size_t limit) {
  enum : uint8_t { kUnseen, kOpen, kDone };
  std::vector<uint8_t> state(layout.objects(), kUnseen);
  std::vector<uint32_t> height(layout.objects(), 0);
  struct Frame {
    uint64_t object;
    std::vector<uint64_t> children;
    size_t next = 0;
    uint32_t height = 1;
  };
  std::vector<Frame> path;
  auto open = [&](uint64_t object) {
    auto children = layout.children(object);
    if (!children || path.size() >= limit) return false;
    state[object] = kOpen;
    path.push_back(Frame{object, std::move(*children)});
    return true;
  };
  if (!open(layout.top())) return false;
  while (!path.empty()) {
    Frame& frame = path.back();
    if (frame.next == frame.children.size()) {
      state[frame.object] = kDone;
      height[frame.object] = frame.height;
      const uint32_t done = frame.height;
      path.pop_back();
      if (!path.empty()) path.back().height = std::max(path.back().height, done + 1);
      continue;
    }
    const uint64_t child = frame.children[frame.next++];
    if (state[child] == kOpen) return false;
    if (state[child] == kDone) {
      if (path.size() + height[child] > limit) return false;
      frame.height = std::max(frame.height, height[child] + 1);
    } else if (!open(child)) {
      return false;
    }
  }
  return true;
}

// Whether XML text nests arrays and dictionaries at most `limit` deep, read the way libplist
// reads tags: processing instructions, comments, CDATA and the document type are skipped; a
// closing tag that does not match the open container ends the scan, as it ends the parse.
bool xmlNestingWithin(std::string_view text, size_t limit) {
  std::vector<bool> openIsArray;
  size_t at = 0;
  // Where libplist starts looking for the end marker: "<!-->" does not end a comment.
  auto skipPast = [&](std::string_view marker, size_t startLength) {
    const size_t found = text.find(marker, at + startLength);
    at = found == std::string_view::npos ? text.size() : found + marker.size();
  };
  while ((at = text.find('<', at)) != std::string_view::npos) {
    const std::string_view rest = text.substr(at);
    if (rest.starts_with("<?")) {
      skipPast("?>", 1);  // "<?>" is a whole instruction
    } else if (rest.starts_with("<!--")) {
      skipPast("-->", 4);
    } else if (rest.starts_with("<![CDATA[")) {
      skipPast("]]>", 9);
    } else if (rest.starts_with("<!")) {
      const size_t end = text.find_first_of("[>", at);
      if (end != std::string_view::npos && text[end] == '[') {
        at = end;
        skipPast("]>", 1);
      } else {
        skipPast(">", 2);
      }
    } else {
      const size_t nameEnd = text.find_first_of(" \r\n\t<>", at + 1);
      if (nameEnd == std::string_view::npos) break;
      std::string_view name = text.substr(at + 1, nameEnd - at - 1);
      const size_t close = text.find_first_of("<>", nameEnd);
      if (close == std::string_view::npos || text[close] != '>') break;
      const bool empty = text[close - 1] == '/';
      if (empty && name.ends_with('/')) name.remove_suffix(1);
      at = close + 1;
      if (name == "/array" || name == "/dict") {
        if (openIsArray.empty() || openIsArray.back() != (name == "/array")) break;
        openIsArray.pop_back();
      } else if (!empty && (name == "array" || name == "dict")) {
        if (openIsArray.size() >= limit) return false;
        openIsArray.push_back(name == "array");
      }
    }
  }
  return true;
}

// Whether libplist can be given these bytes without bringing the process down. It asserts
// (aborting) when it hands out a key or string holding U+0000, which both formats can carry: a
// raw NUL byte in XML text, or a NUL character in a binary string object. And it recurses once
// per nesting level when it builds and frees the tree, so a small file of deeply nested
// containers would exhaust the stack of the thread that reads it.
bool safeForLibplist(std::string_view bytes) {
  if (plist_is_binary(bytes.data(), static_cast<uint32_t>(bytes.size())) == 0) {
    return bytes.find('\0') == std::string_view::npos &&
           xmlNestingWithin(bytes, kMaxPropertyListDepth);
  }
  const auto layout = BinaryLayout::make(bytes);
  if (!layout) return false;
  for (uint64_t i = 0; i < layout->objects(); ++i) {
    if (layout->stringHoldsNul(i) != false) return false;
  }
  return binaryNestingWithin(*layout, kMaxPropertyListDepth);
}

}  // namespace

std::optional<PropertyListDictionary> readPropertyListDictionary(const std::string& file) {
  const auto bytes = readFileBounded(file, kMaxPropertyListBytes);
  if (!bytes || bytes->empty() || !safeForLibplist(*bytes)) return std::nullopt;

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
