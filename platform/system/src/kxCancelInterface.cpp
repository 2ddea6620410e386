#include <kx/system/kxCancelInterface.h>
#include <kx/system/kxCancelInterfaceReadOnly.h>

namespace kx {

// Out-of-line destructors give the two interfaces one home for their vtables and type information, so
// dynamic_cast and exceptions agree on the types across the shared library boundary.
kxCancelInterfaceReadOnly::~kxCancelInterfaceReadOnly() = default;
kxCancelInterface::~kxCancelInterface() = default;

}  // namespace kx
