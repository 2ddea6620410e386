// The encoding side of Url: percent-encoding primitives, paths, query strings, the encoded and the
// displayable forms, and HTTP Basic credentials.
#include <kx/Url.h>

#include <kx/system/kxBase64.h>
#include <kx/system/kxStringUtils.h>

#include "url/UrlCodec.h"

#include <string_view>

namespace kx {
namespace {

using url::detail::AppendEncoded;

// The path separator, written between segments and in front of a non-empty path.
const std::string kPathSeparator = "/";

void AppendEncodedPath(std::string& out, Url::PathSegments::const_iterator first,
                       Url::PathSegments::const_iterator last) {
  for (auto it = first; it != last; ++it) {
    if (it != first) out += kPathSeparator;
    AppendEncoded(out, *it);
  }
}

// Writes "/" + the encoded path, unless the encoded path is empty (no segment, or one empty segment).
void AppendPathWithSlash(std::string& out, const Url::PathSegments& segments) {
  const size_t mark = out.size();
  out += kPathSeparator;
  AppendEncodedPath(out, segments.begin(), segments.end());
  if (out.size() == mark + kPathSeparator.size()) out.resize(mark);
}

void AppendEncodedParameters(std::string& out, const Url::QueryParameters& parameters,
                             bool withQuestionMark) {
  bool first = true;
  for (const auto& [key, value] : parameters) {
    if (first) {
      if (withQuestionMark) out += '?';
      first = false;
    } else {
      out += '&';
    }
    AppendEncoded(out, key);
    out += '=';  // written for an empty value too: "?flag" comes back as "?flag="
    AppendEncoded(out, value);
  }
}

// Cuts `path` at every "/" and appends the non-empty pieces, as they are, to `segments`.
void SplitPathInto(std::string_view path, Url::PathSegments& segments) {
  size_t start = 0;
  while (start <= path.size()) {
    size_t slash = path.find('/', start);
    if (slash == std::string_view::npos) slash = path.size();
    if (slash > start) segments.emplace_back(path.substr(start, slash - start));
    start = slash + 1;
  }
}

}  // namespace

std::string Url::UrlEncodeFromUtf8String(const std::string& text) {
  std::string out;
  AppendEncoded(out, text);
  return out;
}

bool Url::UrlDecodeToUtf8String(const std::string& encoded, std::string& decoded) {
  decoded = encoded;
  return url::detail::DecodeInPlace(decoded);
}

std::string Url::ToEncodedParameters(const QueryParameters& parameters, bool withQuestionMark) {
  std::string out;
  AppendEncodedParameters(out, parameters, withQuestionMark);
  return out;
}

std::string Url::ToEncodedPath(const PathSegments::const_iterator& first,
                               const PathSegments::const_iterator& last) {
  std::string out;
  AppendEncodedPath(out, first, last);
  return out;
}

std::string Url::ToEncodedPath(const PathSegments& segments) {
  return ToEncodedPath(segments.begin(), segments.end());
}

bool Url::FromEncodedPath(const std::string& encodedPath, PathSegments& segments) {
  // Split into a fresh vector: `encodedPath` may be one of the strings `segments` holds.
  PathSegments pieces;
  SplitPathInto(encodedPath, pieces);
  segments.clear();
  for (std::string& piece : pieces) {
    if (!url::detail::DecodeInPlace(piece)) return false;
  }
  segments = std::move(pieces);
  return true;
}

bool Url::setEncodedPath(const std::string& encodedPath) {
  return FromEncodedPath(encodedPath, pathSegments_);
}

void Url::setNonEncodedPath(const std::string& path) {
  PathSegments pieces;
  SplitPathInto(path, pieces);
  pathSegments_ = std::move(pieces);
}

void Url::pushEncodedPath(const std::string& encodedPath) {
  PathSegments pieces;
  if (!FromEncodedPath(encodedPath, pieces)) return;
  for (std::string& piece : pieces) pathSegments_.push_back(std::move(piece));
}

void Url::pushNonEncodedPath(const std::string& path) {
  PathSegments pieces;
  SplitPathInto(path, pieces);
  for (std::string& piece : pieces) pathSegments_.push_back(std::move(piece));
}

namespace {

// Everything after the user info: host, port, path, query and fragment.
void AppendAfterUserInfo(std::string& out, const std::string& host, uint16_t port,
                         const Url::PathSegments& segments, const Url::QueryParameters& parameters,
                         bool hasFragment, const std::string& fragment) {
  out += host;  // as stored: an IPv6 host already carries its brackets
  if (port != 0) {
    out += ':';
    out += std::to_string(port);
  }
  AppendPathWithSlash(out, segments);
  AppendEncodedParameters(out, parameters, true);
  if (hasFragment) {
    out += '#';
    AppendEncoded(out, fragment);
  }
}

}  // namespace

std::string Url::toEncodedUrl(bool withCredentials) const {
  if (!isValid()) return {};
  std::string out;
  if (!withCredentials || !hasCredentials()) {
    out.reserve(scheme_.size() + host_.size() + 64);
    out += scheme_;
    out += "://";
    AppendAfterUserInfo(out, host_, port_, pathSegments_, queryParameters_, hasFragment_, fragment_);
    return out;
  }
  // The password must never sit in a buffer that a growing string frees unwiped: the rest is built
  // first, then the result is reserved once at its largest size (AppendEncoded briefly needs three
  // bytes per input byte plus one), so it is never reallocated.
  std::string rest;
  AppendAfterUserInfo(rest, host_, port_, pathSegments_, queryParameters_, hasFragment_, fragment_);
  out.reserve(scheme_.size() + 3 + 3 * user_.size() + 1 + 1 + 3 * password_.size() + 1 + 1 + rest.size());
  out += scheme_;
  out += "://";
  AppendEncoded(out, user_);
  out += ':';
  AppendEncoded(out, password_);
  out += '@';
  out += rest;
  return out;
}

std::string Url::toDisplayableUrl() const {
  if (!isValid()) return {};
  std::string out;
  out.reserve(scheme_.size() + host_.size() + 64);
  out += scheme_;
  out += "://";
  if (hasCredentials()) {
    out += user_;
    // Always seven asterisks: neither the password nor its length shows in a log.
    out += ":*******@";
  }
  out += host_;
  if (port_ != 0) {
    out += ':';
    out += std::to_string(port_);
  }
  AppendPathWithSlash(out, pathSegments_);
  AppendEncodedParameters(out, queryParameters_, true);
  return out;
}

void Url::BasicEncodeCredentials(const std::string& user, const std::string& password,
                                 std::string& encoded) {
  std::string joined;
  joined.reserve(user.size() + 1 + password.size());
  joined += user;
  joined += ':';
  joined += password;
  encoded = base64Encode(joined, kBase64Standard);
  kxStringUtils::SecureClear(joined);
}

void Url::getCredentialsBasicEncoded(std::string& encoded) const {
  kxStringUtils::SecureClear(encoded);
  if (hasCredentials()) BasicEncodeCredentials(user_, password_, encoded);
}

}  // namespace kx
