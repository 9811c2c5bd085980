// The site-ID property list: the bytes of one input as "VantrelTagManagerSDKInfo.plist" (XML or
// binary, as libplist decides), read the way the library reads it at start-up.
#include <cstdio>
#include <cstdlib>
#include <filesystem>

#include "FuzzSupport.hpp"
#include "facade/VNTRTagManagerSiteID.hpp"
#include "platform/linux/PropertyList.hpp"

namespace {

const std::filesystem::path& bundle() {
  static auto* const path = [] {
    auto* dir = new std::filesystem::path(vntr::fuzz::scratchDirectory() / "bundle");
    std::filesystem::create_directories(*dir);
    return dir;
  }();
  return *path;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  vntr::fuzz::quietMainQueue();
  bundle();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const auto file = bundle() / "VantrelTagManagerSDKInfo.plist";
  vntr::fuzz::writeInput(file, data, size);
  // A host may well make its first call, which reads the file, on a thread with a small stack.
  vntr::fuzz::runOnSmallStack([&file] {
    const auto siteID = vntr::loadSiteID(bundle());
    if (siteID) {
      // Found only in a dictionary of strings that holds the key.
      const auto entries = vntr::readPropertyListDictionary(file);
      const auto found = entries ? entries->find("VantrelSiteID") : decltype(entries->end()){};
      if (!entries || found == entries->end() || found->second != siteID) {
        std::fprintf(stderr, "site ID: read differently the second time\n");
        std::abort();
      }
    }
  });
  vntr::fuzz::drainMainQueue();
  return 0;
}
