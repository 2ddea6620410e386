// The process-level initialisation of the compression library. It is counted like the library's own
// initialisation: every initializeCompress() must be matched by one terminateCompress(). No state needs
// setting up today; the pair exists so that programs and the library bring it up and down in the same
// order as the other sibling libraries, and keep doing so when it gains state.
//
// Thread-safety: thread-safe (counted atomically); meant for start-up and shut-down.
#pragma once

#include <kx/system/kxExport.h>

namespace kx {

KX_EXPORT void initializeCompress();
// An unmatched call (nothing initialised) is ignored.
KX_EXPORT void terminateCompress();
KX_EXPORT bool IsCompressInitialized();

}  // namespace kx
