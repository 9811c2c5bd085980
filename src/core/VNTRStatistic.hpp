#pragma once

#include <cstdint>
#include <vntr/VNTRPreferences.hpp>

namespace vntr {

/// Reports one increment to the delegate of the shared preferences, if any, synchronously on
/// the calling thread. The delegate is read anew at each call; whatever it throws is logged.
void reportStatistic(VNTRStatistic statistic, int64_t adjustment);

}  // namespace vntr
