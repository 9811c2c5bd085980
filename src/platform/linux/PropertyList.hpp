#pragma once

#include <cstddef>
#include <map>
#include <optional>
#include <string>

namespace vntr {

/// Property lists we read are small configuration files; anything larger is treated as broken.
constexpr size_t kMaxPropertyListBytes = size_t{1024} * 1024;
/// Nor do they nest arrays and dictionaries deeply; deeper lists are refused before parsing.
constexpr size_t kMaxPropertyListDepth = 128;

/// The entries of a property list whose root is a dictionary: each key with its string value,
/// or nothing when the value has another type (number, bool, array, ...).
using PropertyListDictionary = std::map<std::string, std::optional<std::string>>;

/// Reads an XML or binary property list with libplist. Nothing when the file cannot be read, is
/// larger than `kMaxPropertyListBytes`, nests deeper than `kMaxPropertyListDepth`, holds U+0000
/// in a key or string, is not a property list, or its root is not a dictionary. Never logs; safe
/// on any thread, whatever its stack size.
std::optional<PropertyListDictionary> readPropertyListDictionary(const std::string& file);

}  // namespace vntr
