#include <kx/http/HttpAuthenticatorInterface.h>

namespace kx {
namespace http {

// Defined out of line so that the vtable and type information have one home in the library, which keeps
// dynamic_cast and equalTo working across the shared-library boundary.
HttpAuthenticatorInterface::~HttpAuthenticatorInterface() = default;

}  // namespace http
}  // namespace kx
