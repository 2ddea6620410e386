#include <kx/elasticsearch/ESConnectionParameters.h>

namespace kx {
namespace elasticsearch {

ESConnectionParameters::ESConnectionParameters() = default;
ESConnectionParameters::ESConnectionParameters(const http::HttpUrl& url) : http::HttpUrl(url) {}
ESConnectionParameters::ESConnectionParameters(const ESConnectionParameters& other) = default;
ESConnectionParameters& ESConnectionParameters::operator=(const ESConnectionParameters& other) = default;
// Out of line so that the class's virtual table and type information live in the library alone.
ESConnectionParameters::~ESConnectionParameters() = default;

}  // namespace elasticsearch
}  // namespace kx
