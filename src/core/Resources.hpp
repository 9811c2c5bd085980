#pragma once

#include <string_view>
#include <vector>

namespace vntr::detail {

/// One file of resources/, embedded into the library when it is built.
struct EmbeddedResource {
  std::string_view name;   // full file name, extension included
  std::string_view bytes;  // the file's contents
};

/// Every embedded resource; generated at build time.
const std::vector<EmbeddedResource>& embeddedResources();

}  // namespace vntr::detail
