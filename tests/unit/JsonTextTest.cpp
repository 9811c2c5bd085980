// Request members are written as JSON text without building JSON values; the text must be what
// nlohmann::json's dump() writes, byte for byte, and invalid UTF-8 must be refused as dump() does.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "core/Extensions.hpp"

namespace vntr {
namespace {

TEST(JsonText, stringsAreWrittenAsDumpWritesThem) {
  std::vector<std::string> texts = {"",
                                    "checkout",
                                    "a\"b\\c/d",
                                    "\b\f\n\r\t",
                                    "\x7f plain",
                                    "Grüße ✓ 😀",
                                    std::string("nul\0x", 5)};
  for (int c = 0; c < 0x20; ++c) texts.push_back(std::string(1, static_cast<char>(c)) + "x");
  for (const auto& text : texts) {
    std::string out = "prefix";
    ASSERT_TRUE(appendJSONString(out, text));
    EXPECT_EQ(out, "prefix" + nlohmann::json(text).dump());
  }
  for (const std::string bad : {"\xff", "a\xc3", "\xed\xa0\x80", "\xc0\xaf"}) {
    std::string out = "kept";
    EXPECT_FALSE(appendJSONString(out, bad));
    EXPECT_EQ(out, "kept");
    EXPECT_THROW((void)nlohmann::json(bad).dump(), nlohmann::json::type_error);
  }
}

}  // namespace
}  // namespace vntr
