#include <kx/Url.h>

#include <kx/system/kxLog.h>
#include <kx/system/kxStringUtils.h>

#include "url/Ipv6Text.h"
#include "url/UrlCodec.h"
#include "url/UrlParseError.h"

#include <uriparser/Uri.h>

#include <arpa/inet.h>

#include <cstring>
#include <string_view>

namespace kx {
namespace {

using kxStringUtils::SecureClear;
using url::detail::CheckComponent;
using url::detail::ComponentCheck;
using url::detail::DecodeParsedInPlace;
using url::detail::FormatUrlParseError;
using url::detail::UrlParseError;

std::string_view RangeView(const UriTextRangeA& range) {
  if (range.first == nullptr || range.afterLast == nullptr || range.afterLast < range.first) return {};
  return std::string_view(range.first, static_cast<size_t>(range.afterLast - range.first));
}

// The parser's component check: the UTF-8 failure text depends on the step, the control-character text
// does not.
bool CheckStep(std::string_view text, UrlParseError utf8Error, std::string& errorText) {
  switch (CheckComponent(text)) {
    case ComponentCheck::kOk:
      return true;
    case ComponentCheck::kInvalidUtf8:
      errorText = FormatUrlParseError(utf8Error);
      return false;
    case ComponentCheck::kForbiddenChar:
      errorText = FormatUrlParseError(UrlParseError::kForbiddenChar);
      return false;
  }
  return false;
}

bool Fail(UrlParseError error, std::string& errorText, long long value = 0) {
  errorText = FormatUrlParseError(error, value);
  return false;
}

// Reads the port as strtoll with base 0 would ("0x1F" hexadecimal, "010" octal, else decimal), without
// its locale or a NUL-terminated copy: uriparser hands over digits only, so no sign or blank can occur,
// and anything that is not a digit of the base fails. An empty text is port 0.
bool ConvertPort(std::string_view text, uint16_t& port) {
  unsigned base = 10;
  size_t i = 0;
  if (text.size() > 1 && text[0] == '0') {
    const bool hex = text[1] == 'x' || text[1] == 'X';
    base = hex ? 16 : 8;
    i = hex ? 2 : 1;
    if (i == text.size()) return false;  // "0x" alone: strtoll would stop after the "0"
  }
  uint32_t value = 0;
  for (; i < text.size(); ++i) {
    const char c = text[i];
    unsigned digit = base;
    if (c >= '0' && c <= '9') {
      digit = static_cast<unsigned>(c - '0');
    } else if (c >= 'a' && c <= 'f') {
      digit = static_cast<unsigned>(c - 'a' + 10);
    } else if (c >= 'A' && c <= 'F') {
      digit = static_cast<unsigned>(c - 'A' + 10);
    }
    if (digit >= base) return false;
    value = value * base + digit;
    if (value > 65535) return false;
  }
  port = static_cast<uint16_t>(value);
  return true;
}

// Frees what uriparser allocated for a successfully parsed URI, on every way out of the parser.
class UriMembersGuard {
 public:
  explicit UriMembersGuard(UriUriA* uri) : uri_(uri) {}
  ~UriMembersGuard() { uriFreeUriMembersA(uri_); }
  UriMembersGuard(const UriMembersGuard&) = delete;
  UriMembersGuard& operator=(const UriMembersGuard&) = delete;

 private:
  UriUriA* uri_;
};

}  // namespace

Url::Url() { clearUrl(); }

Url::Url(const std::string& encodedUrl) { fromEncodedUtf8String(encodedUrl, nullptr, false); }

Url::Url(const Url& other) = default;

Url::Url(Url&& other) noexcept { *this = std::move(other); }

Url& Url::operator=(const Url& other) {
  if (this == &other) return *this;
  clearOwnFields();
  scheme_ = other.scheme_;
  user_ = other.user_;
  password_ = other.password_;
  host_ = other.host_;
  fragment_ = other.fragment_;
  ipAddress_ = other.ipAddress_;
  queryParameters_ = other.queryParameters_;
  pathSegments_ = other.pathSegments_;
  port_ = other.port_;
  hasFragment_ = other.hasFragment_;
  return *this;
}

Url& Url::operator=(Url&& other) noexcept {
  if (this == &other) return *this;
  // Wiped first: std::string's move assignment may hand this string's old buffer to `other`.
  clearOwnFields();
  scheme_ = std::move(other.scheme_);
  user_ = std::move(other.user_);
  password_ = std::move(other.password_);
  host_ = std::move(other.host_);
  fragment_ = std::move(other.fragment_);
  ipAddress_ = std::move(other.ipAddress_);
  queryParameters_ = std::move(other.queryParameters_);
  pathSegments_ = std::move(other.pathSegments_);
  port_ = other.port_;
  hasFragment_ = other.hasFragment_;
  // A short string is copied out of its inline buffer, not moved: wipe what stays behind in `other`.
  other.clearOwnFields();
  return *this;
}

Url::~Url() { clearUrl(); }

void Url::clearOwnFields() {
  scheme_.clear();
  port_ = 0;
  SecureClear(host_);
  SecureClear(user_);
  SecureClear(password_);
  SecureClear(fragment_);
  hasFragment_ = false;
  queryParameters_.clear();
  pathSegments_.clear();
  // A cleared URL has no host, so it has no host address either: a failed re-parse must not keep the
  // previous URL's address.
  ipAddress_.clear();
}

void Url::clearUrl() { clearOwnFields(); }

bool Url::isValid() const { return !host_.empty() && !scheme_.empty(); }

bool Url::equalTo(const Url& other) const {
  return scheme_ == other.scheme_ && user_ == other.user_ && password_ == other.password_ &&
         host_ == other.host_ && port_ == other.port_ && pathSegments_ == other.pathSegments_ &&
         queryParameters_ == other.queryParameters_ && fragment_ == other.fragment_;
}

void Url::setCredentials(const std::string& user, const std::string& password) {
  // Copied before wiping, in case an argument is one of this URL's own strings.
  std::string newUser(user);
  std::string newPassword(password);
  SecureClear(user_);
  SecureClear(password_);
  user_ = newUser;
  password_ = newPassword;
  SecureClear(newUser);
  SecureClear(newPassword);
}

void Url::clearCredentials() {
  SecureClear(user_);
  SecureClear(password_);
}

void Url::getCredentials(std::string& user, std::string& password) const {
  user = user_;
  password = password_;
}

void Url::setHost(const std::string& host) {
  if (host.find('\0') != std::string::npos) return;
  if (&host != &host_) {
    SecureClear(host_);
    host_ = host;
  }
  recognizeHost();
}

void Url::recognizeHost() {
  ipAddress_.fromStringAddress(host_, IpAddress::Invalid);
  const sockaddr_in6* v6 = ipAddress_.getIPv6Sockaddr();
  if (v6 == nullptr) return;
  // getAddressAsString's text, written straight into a stack buffer: no string to allocate per literal.
  char canonical[INET6_ADDRSTRLEN + 2] = "[";
  const size_t length = url::detail::FormatIpv6(v6->sin6_addr.s6_addr, canonical + 1) + 1;
  canonical[length] = ']';
  SecureClear(host_);
  host_.assign(canonical, length + 1);
}

void Url::setFragment(const std::string& fragment) {
  std::string next(fragment);
  SecureClear(fragment_);
  fragment_ = next;
  hasFragment_ = !fragment_.empty();
  SecureClear(next);
}

void Url::clearFragment() {
  SecureClear(fragment_);
  hasFragment_ = false;
}

bool Url::holdsString(const std::string* text) const {
  if (text == &scheme_ || text == &user_ || text == &password_ || text == &host_ ||
      text == &fragment_) {
    return true;
  }
  for (const std::string& segment : pathSegments_) {
    if (text == &segment) return true;
  }
  for (const auto& [key, value] : queryParameters_) {
    if (text == &key || text == &value) return true;
  }
  return false;
}

bool Url::fromEncodedUtf8String(const std::string& encodedUrl, std::string* errorMessage,
                                bool normalize) {
  // The first step clears this URL; text that lives inside it must be copied out before that.
  if (holdsString(&encodedUrl)) {
    const std::string copy(encodedUrl);
    return fromEncodedUtf8String(copy, errorMessage, normalize);
  }
  // The query pairs and path segments of the previous value are taken aside before the clearing and
  // refilled: a URL parsed again and again (a request loop) then reuses their list nodes and string
  // buffers instead of freeing and allocating them per pair and segment.
  Recycled recycled;
  recycled.query.swap(queryParameters_);
  recycled.path.swap(pathSegments_);
  clearUrl();
  std::string errorText;
  if (parseEncoded(encodedUrl, normalize, errorText, recycled)) return true;
  if (errorMessage != nullptr) {
    *errorMessage = errorText;
  } else if (kxLog::isEnabled()) {
    kxLog::log(kLogTypeValueError, "url", "Url parse error : " + errorText);
  }
  clearUrl();
  return false;
}

bool Url::parseEncoded(const std::string& encodedUrl, bool normalize, std::string& errorText,
                       Recycled& recycled) {
  // The whole text first, so that uriparser never sees invalid UTF-8 or a control character (a NUL
  // would end its C string early). Every component is a range of this text, and uriparser refuses any
  // byte above 0x7F, so once it has parsed, each raw component is printable ASCII: the per-component
  // checks below could never fail and are not repeated. What can still go wrong is the decoded text.
  if (!CheckStep(encodedUrl, UrlParseError::kInvalidUtf8, errorText)) return false;

  UriUriA uri;
  std::memset(&uri, 0, sizeof uri);
  UriParserStateA state;
  std::memset(&state, 0, sizeof state);
  state.uri = &uri;
  const int parsed = uriParseUriA(&state, encodedUrl.c_str());
  if (parsed != URI_SUCCESS) {
    // uriparser has already released its members on failure.
    if (parsed == URI_ERROR_SYNTAX) {
      const long long offset = state.errorPos != nullptr ? state.errorPos - encodedUrl.c_str() : 0;
      return Fail(UrlParseError::kUriSyntax, errorText, offset);
    }
    return Fail(UrlParseError::kUriFailure, errorText, parsed);
  }
  const UriMembersGuard uriGuard(&uri);

  if (normalize) {
    const int normalized = uriNormalizeSyntaxExA(&uri, URI_NORMALIZE_SCHEME | URI_NORMALIZE_HOST);
    if (normalized != URI_SUCCESS) return Fail(UrlParseError::kNormalize, errorText, normalized);
  }

  // Scheme, as written.
  scheme_.assign(RangeView(uri.scheme));

  // User info: "user:password", both percent-encoded; the password may itself hold ":".
  const std::string_view userInfo = RangeView(uri.userInfo);
  if (!userInfo.empty()) {
    const size_t colon = userInfo.find(':');
    // A user name without a password is refused on purpose: credentials are all or nothing.
    if (colon == std::string_view::npos) return Fail(UrlParseError::kUserInfoColonMissing, errorText);
    user_.assign(userInfo.substr(0, colon));
    password_.assign(userInfo.substr(colon + 1));
    if (!DecodeParsedInPlace(user_) || !DecodeParsedInPlace(password_)) {
      return Fail(UrlParseError::kCredentialsUtf8, errorText);
    }
  }

  // Host, not percent-decoded. uriparser drops the brackets of IP literals; setHost brings IPv6 back
  // into bracketed canonical form, IPvFuture gets its brackets back here or it would name another host.
  const std::string_view host = RangeView(uri.hostText);
  // The text goes straight into the (wiped) host field, then setHost's recognition runs on it.
  if (uri.hostData.ipFuture.first != nullptr) {
    host_ += '[';
    host_ += host;
    host_ += ']';
  } else {
    host_.assign(host);
  }
  recognizeHost();
  if (uri.hostData.ip6 != nullptr && ipAddress_.getType() != IpAddress::IPv6) {
    host_.insert(host_.begin(), '[');
    host_ += ']';
  }

  // Port.
  if (!ConvertPort(RangeView(uri.portText), port_)) return Fail(UrlParseError::kPort, errorText);

  // Path: one decoded string per segment; "%2F" stays inside its segment.
  pathSegments_.swap(recycled.path);
  size_t segmentCount = 0;
  for (const UriPathSegmentA* segment = uri.pathHead; segment != nullptr; segment = segment->next) {
    if (segmentCount == pathSegments_.size()) pathSegments_.emplace_back();
    std::string& decoded = pathSegments_[segmentCount++];
    decoded.assign(RangeView(segment->text));
    if (!DecodeParsedInPlace(decoded)) return Fail(UrlParseError::kPathUtf8, errorText);
  }
  pathSegments_.resize(segmentCount);

  // Query: split and unescaped ("+" becomes a space) as uriDissectQueryMallocA does, but straight into
  // the pairs: uriparser's list costs a malloc and a free per key, value and node plus a copy, nearly as
  // much as uriparser's whole parse on query-heavy URLs. Items are checked in order, key before value.
  if (uri.query.first != nullptr) {
    switch (url::detail::DissectQuery(RangeView(uri.query), queryParameters_, &recycled.query)) {
      case ComponentCheck::kOk:
        break;
      case ComponentCheck::kInvalidUtf8:
        return Fail(UrlParseError::kInvalidUtf8, errorText);
      case ComponentCheck::kForbiddenChar:
        return Fail(UrlParseError::kForbiddenChar, errorText);
    }
  }

  // Fragment: only a non-empty one counts ("http://host/#" has none).
  const std::string_view fragment = RangeView(uri.fragment);
  if (uri.fragment.first != nullptr && !fragment.empty()) {
    hasFragment_ = true;
    fragment_.assign(fragment);
    if (!DecodeParsedInPlace(fragment_)) return Fail(UrlParseError::kFragmentUtf8, errorText);
  }
  return true;
}

}  // namespace kx
