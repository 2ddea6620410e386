// The process-wide default policies live with the policies that resolve against them, so that
// resolution needs nothing from the library frame; kx::GetDefaultPolicies and kx::SetDefaultPolicies
// (kx/Corvix.h) are the public doors to the same object.
//
// Thread-safety: set before requests start, then only read (no lock).
#pragma once

#include <kx/http/HttpPolicies.h>

namespace kx {
namespace http {
namespace detail {

HttpPolicies& DefaultPolicies();

}  // namespace detail
}  // namespace http
}  // namespace kx
