// The server's answer to a batch, parsed and matched against the batch's pending requests.
// Checks that every request is answered at most once, only through the table, and that a
// result handed over is always an object.
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "FuzzSupport.hpp"
#include "transport/VNTRBatchDispatch.hpp"

namespace {

using vntr::detail::PendingTable;

[[noreturn]] void fail(const char* what, const std::string& id) {
  std::fprintf(stderr, "batch answer: %s (id \"%s\")\n", what, id.c_str());
  std::abort();
}

class CountingMethod final : public vntr::VNTRMethodProtocol {
 public:
  explicit CountingMethod(std::string id) : id_(std::move(id)) {}
  const std::string& id() const override { return id_; }
  const std::string& jsonData() const override { return json_; }
  void processResult(const nlohmann::json& result) override {
    if (!result.is_object()) fail("result is not an object", id_);
    answered();
  }
  void nilResult() override { answered(); }
  int calls() const { return calls_; }

 private:
  void answered() {
    if (++calls_ > 1) fail("answered twice", id_);
  }
  std::string id_;
  std::string json_ = "{}";
  int calls_ = 0;
};

// Ids like the ones a batch carries: short ones the fuzzer finds quickly, and UUID-shaped ones
// as the library makes them.
const std::vector<std::string>& pendingIds() {
  static const auto* const ids = [] {
    auto* list = new std::vector<std::string>;
    for (int i = 0; i < 16; ++i) list->push_back(std::to_string(i));
    list->push_back("getEvents");
    list->push_back("0A6F1B3E-0000-4000-8000-00000000002A");
    list->push_back(" ");
    return list;
  }();
  return *ids;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  vntr::fuzz::quietMainQueue();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::vector<std::shared_ptr<CountingMethod>> methods;
  PendingTable pending;
  for (const auto& id : pendingIds()) {
    auto method = std::make_shared<CountingMethod>(id);
    methods.push_back(method);
    pending.emplace(id, method);
  }

  vntr::detail::dispatchResults(pending, std::string(vntr::fuzz::asText(data, size)));

  // A request leaves the table exactly when it is answered.
  for (const auto& method : methods) {
    const bool stillPending = pending.count(method->id()) != 0;
    if (stillPending != (method->calls() == 0)) fail("table and answers disagree", method->id());
  }
  vntr::fuzz::drainMainQueue();
  return 0;
}
