#pragma once

#include <memory>
#include <string>
#include <unordered_map>

#include "model/VNTRMethodProtocol.hpp"

namespace vntr::detail {

/// The requests of one batch that wait for an answer, by id.
using PendingTable = std::unordered_map<std::string, std::shared_ptr<VNTRMethodProtocol>>;

/// Parses the server's answer to a batch and hands each entry to the pending request with its
/// id, taking that request out of `pending`: a result object goes to `processResult`, an entry
/// without one to `nilResult`, so no request is called twice. Unknown and repeated ids are
/// ignored; an entry's error object is logged. Reports `responseParsed` or `responseUnparsable`.
/// Returns whether the answer parsed. Runs on the store queue, where the requests live. Kept apart
/// from `VNTRRequester` so the parsing and matching can be driven with arbitrary answers on their
/// own.
bool dispatchResults(PendingTable& pending, const std::string& data);

}  // namespace vntr::detail
