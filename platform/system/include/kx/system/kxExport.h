// KX_EXPORT marks what belongs to libCorvix.so's public surface. Everything else is built with hidden
// visibility, so internal helpers never become part of the ABI by accident.
#pragma once

#if defined(__GNUC__) || defined(__clang__)
#define KX_EXPORT __attribute__((visibility("default")))
#else
#define KX_EXPORT
#endif
