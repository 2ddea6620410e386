#include <kx/http/HttpHeaders.h>

#include <kx/system/kxStringUtils.h>

#include <algorithm>
#include <utility>

namespace kx {
namespace http {

namespace {

bool HasAsciiUpper(const std::string& text) {
  return std::any_of(text.begin(), text.end(), [](char c) { return c >= 'A' && c <= 'Z'; });
}

// Most lookups already use lower-case names ("content-type"); those reach the map without building a
// normalised copy.
template <typename Map>
auto LookUp(Map& headers, const std::string& name) {
  if (!HasAsciiUpper(name)) return headers.find(name);
  return headers.find(HttpHeaders::NormalizeHeaderName(name));
}

}  // namespace

std::string HttpHeaders::NormalizeHeaderName(const std::string& name) {
  // Never the C tolower: it follows the process locale (a Turkish locale folds 'I' to a dotless i, so
  // "If-Modified-Since" would no longer match) and is undefined for negative chars.
  return kxStringUtils::AsciiToLower(name);
}

void HttpHeaders::clear() { headers.clear(); }

std::list<std::string>* HttpHeaders::find(const std::string& name) {
  const auto it = LookUp(headers, name);
  return it == headers.end() ? nullptr : &it->second;
}

const std::list<std::string>* HttpHeaders::find(const std::string& name) const {
  const auto it = LookUp(headers, name);
  return it == headers.end() ? nullptr : &it->second;
}

bool HttpHeaders::contains(const std::string& name) const { return LookUp(headers, name) != headers.end(); }

void HttpHeaders::removeHeader(const std::string& name) {
  const auto it = LookUp(headers, name);
  if (it != headers.end()) headers.erase(it);
}

std::list<std::string>& HttpHeaders::findOrCreate(const std::string& name) {
  if (!HasAsciiUpper(name)) return headers.try_emplace(name).first->second;
  return headers.try_emplace(NormalizeHeaderName(name)).first->second;
}

void HttpHeaders::addHeaderValue(const std::string& name, const std::string& value) {
  findOrCreate(name).push_back(value);
}

void HttpHeaders::addHeaderValues(const std::string& name, const std::list<std::string>& values) {
  std::list<std::string>& target = findOrCreate(name);
  // `values` may be the very list of this entry (a caller passing find()'s result back in); inserting a
  // list into itself by range would never end, so append a copy.
  if (&target == &values) {
    std::list<std::string> copy(values);
    target.splice(target.end(), copy);
    return;
  }
  target.insert(target.end(), values.begin(), values.end());
}

void HttpHeaders::addHeaderValues(const std::string& name, const std::vector<std::string>& values) {
  std::list<std::string>& target = findOrCreate(name);
  target.insert(target.end(), values.begin(), values.end());
}

void HttpHeaders::replaceHeader(const std::string& name) { findOrCreate(name).clear(); }

void HttpHeaders::replaceHeader(const std::string& name, const std::string& value) {
  std::list<std::string>& target = findOrCreate(name);
  // `value` may live in this very list (find("x")->front()); build the new element before clearing.
  std::list<std::string> replacement{value};
  target.swap(replacement);
}

void HttpHeaders::addHeaders(const HttpHeaders& other) {
  if (&other == this) {
    const HttpHeaders copy(other);
    addHeaders(copy);
    return;
  }
  for (const auto& [name, values] : other.headers) {
    // Keys of `other` are already normalised.
    std::list<std::string>& target = headers.try_emplace(name).first->second;
    target.insert(target.end(), values.begin(), values.end());
  }
}

bool HttpHeaders::iterateOverHeaders(
    std::function<bool(const std::string& name, std::list<std::string>& values)> visitor) {
  // An empty function is refused only when there is something to call it for.
  if (!visitor) return headers.empty();
  for (auto& [name, values] : headers) {
    if (!visitor(name, values)) return false;
  }
  return true;
}

bool HttpHeaders::iterateOverHeaders(
    std::function<bool(const std::string& name, const std::list<std::string>& values)> visitor) const {
  if (!visitor) return headers.empty();
  for (const auto& [name, values] : headers) {
    if (!visitor(name, values)) return false;
  }
  return true;
}

}  // namespace http
}  // namespace kx
