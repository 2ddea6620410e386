// Lumara is the JSON library of the platform: JSON text to kxVariant and back (see Json2Variant.h).
//
// initializeKxLumara()/terminateKxLumara() let a program (or the Corvix library frame) start and stop
// Lumara like its other sibling libraries. The calls are counted: only the first initialisation and the
// matching last termination matter, and an unmatched termination is ignored. Lumara keeps no global
// resources, so conversions also work without the pair; it exists so every library is started the same
// way and a later need for global state has a place to go.
//
// Thread-safety: thread-safe.
#pragma once

#include <kx/system/kxExport.h>

namespace kx {
namespace json {

KX_EXPORT void initializeKxLumara();
KX_EXPORT void terminateKxLumara();
// True between the first initializeKxLumara() and the matching last terminateKxLumara().
KX_EXPORT bool isKxLumaraInitialized();

}  // namespace json
}  // namespace kx
