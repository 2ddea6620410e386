#include <kx/compress/kxCompress.h>

#include <kx/system/LibInitCounter.h>

namespace kx {

namespace {
LibInitCounter gCompressInitCounter;
}  // namespace

void initializeCompress() { gCompressInitCounter.incrementInitCounter(); }

void terminateCompress() { gCompressInitCounter.decrementInitCounter(); }

bool IsCompressInitialized() { return gCompressInitCounter.isInitialized(); }

}  // namespace kx
