// Clocks of the platform and the machine's parallelism.
//
// Two time bases, not to be mixed:
// - GetTimeBaseMs(): monotonic milliseconds since an arbitrary origin (boot). Never jumps when the wall
//   clock is set, so it is the one for durations, ages and timeouts: `GetTimeBaseMs() - releasedAt`.
// - GetMSecElapsedSinceEpoch() / GetSecondsSinceEpoch(): wall-clock time since 1970-01-01 UTC, for
//   values that leave the process (token expiry claims, log stamps).
//
// A stored time that has not been set yet holds kTimeNeverSet, the lowest int64_t, which compares
// before every real time.
//
// Thread-safety: every function may be called from any thread.
#pragma once

#include <kx/system/kxExport.h>

#include <cstdint>
#include <limits>

namespace kx {

inline constexpr int64_t kTimeNeverSet = std::numeric_limits<int64_t>::min();

// Monotonic milliseconds (CLOCK_MONOTONIC); always positive and never decreasing within a process.
KX_EXPORT int64_t GetTimeBaseMs();
// Wall-clock milliseconds since the Unix epoch.
KX_EXPORT int64_t GetMSecElapsedSinceEpoch();
// Wall-clock whole seconds since the Unix epoch.
KX_EXPORT int64_t GetSecondsSinceEpoch();

// The number of threads that can run truly in parallel for this process: the CPUs of its affinity mask
// (so taskset and cpusets are honoured), else the hardware count; at least 1.
KX_EXPORT unsigned int GetIdealThreadCount();

}  // namespace kx
