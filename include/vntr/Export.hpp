#pragma once

// Symbols of the installed library are hidden unless marked VNTR_API.
#if defined(VNTR_BUILDING_LIBRARY)
#define VNTR_API __attribute__((visibility("default")))
#else
#define VNTR_API
#endif
