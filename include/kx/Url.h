// Url is the library's value type for an absolute URL held in decoded (human) form: user name, password,
// path segments, query keys and values and the fragment hold the characters the URL denotes, not their
// percent-escapes. Every request target, token endpoint and key-set location is a Url or an
// http::HttpUrl, which derives from it.
//
//   kx::Url url;
//   std::string error;
//   if (!url.fromEncodedUtf8String("http://u:p@h:8080/a%20b/c?q=1&q=2#top", &error, false)) {
//     ... error holds the exact reason, e.g. "fail to parse port" ...
//   }
//   url.getPathSegments();          // {"a b", "c"}
//   url.getQueryParameters();       // {{"q","1"}, {"q","2"}}, in order, duplicates kept
//   url.toEncodedUrl(true);         // "http://u:p@h:8080/a%20b/c?q=1&q=2#top"
//   url.toDisplayableUrl();         // "http://u:*******@h:8080/a%20b/c?q=1&q=2" (for logs)
//
// Parsing. Every component a successful parse stores is valid UTF-8 without ASCII control characters;
// anything else is refused with an exact text. The host is kept as written (not percent-decoded), except
// that an IPv6 literal is stored bracketed in canonical form ("[::abcd]"), so two spellings of the same
// IPv6 address compare equal. Raw non-ASCII bytes are a syntax error: UTF-8 arrives percent-encoded. A
// failed parse leaves the URL empty, the cached IP address included.
//
// Normalisation (fromEncodedUtf8String with `normalize` true) lower-cases the scheme and the host, and
// does what uriparser's syntax normalisation of those two parts does besides: in the host, escapes of
// unreserved characters are decoded and the hex digits of the remaining escapes are lower-cased
// ("Ex%41mple.COM" becomes "example.com"). Without it nothing is normalised: "HTTP://Example" keeps its
// case, and equality is byte for byte.
//
// Round trips parse -> toEncodedUrl -> parse give an equal URL, except that a path made of one empty
// segment ("http://host/") is written without its slash, credentials are written only when both the user
// name and the password are non-empty, and "?flag" comes back as "?flag=" (same decoded value).
//
// Thread-safety: thread-compatible (const calls may overlap; callers synchronise mutation).
// Ownership: a copyable value. It owns its strings; the user name, password, host and fragment are wiped
// over their whole allocated capacity when cleared, replaced or destroyed. References returned by the
// accessors stay valid until the URL is modified or destroyed. Setters store what they are given without
// validation or encoding.
#pragma once

#include <kx/IpAddress.h>
#include <kx/system/kxExport.h>

#include <cstdint>
#include <list>
#include <string>
#include <utility>
#include <vector>

namespace kx {

class KX_EXPORT Url {
 public:
  using QueryParameters = std::list<std::pair<std::string, std::string>>;
  using PathSegments = std::vector<std::string>;

  // An empty (invalid) URL.
  Url();
  // Parses `encodedUrl` without normalisation; a failure is only logged and leaves an empty URL.
  // Deliberately implicit: `kx::Url url = text;` reads as the assignment of a URL text.
  Url(const std::string& encodedUrl);  // NOLINT(google-explicit-constructor)
  Url(const Url& other);
  Url(Url&& other) noexcept;
  // Both wipe this URL's secrets before taking the other's values.
  Url& operator=(const Url& other);
  Url& operator=(Url&& other) noexcept;
  // Calls clearUrl(), so secrets are wiped before the memory is released.
  virtual ~Url();

  // Empties every component and wipes user name, password, host and fragment.
  virtual void clearUrl();
  // The form for logs and error messages: the password replaced by "*******" (whatever its length),
  // the fragment dropped. "" when the URL is not valid.
  virtual std::string toDisplayableUrl() const;
  // True when the scheme and the host are non-empty; nothing else is checked.
  virtual bool isValid() const;
  // Byte-for-byte equality of scheme, user, password, host, port, path segments, query pairs (in order)
  // and fragment. The cached IP address and the fragment flag are not compared.
  virtual bool equalTo(const Url& other) const;

  // Parses an encoded URL into this object (replaced). On failure returns false and the URL is empty; the
  // reason goes to `*errorMessage` when given, else to the log (type 1, category "url"). See the header
  // comment for `normalize`.
  bool fromEncodedUtf8String(const std::string& encodedUrl, std::string* errorMessage = nullptr,
                             bool normalize = false);

  // The left operand's dynamic type decides, through equalTo.
  bool operator==(const Url& other) const { return equalTo(other); }
  bool operator!=(const Url& other) const { return !equalTo(other); }

  // --- Components ---------------------------------------------------------------------------------
  const std::string& getScheme() const { return scheme_; }
  void setScheme(const std::string& scheme) { scheme_ = scheme; }

  const std::string& getUser() const { return user_; }
  const std::string& getPassword() const { return password_; }
  // Wipes both old values, then stores the new ones as given.
  void setCredentials(const std::string& user, const std::string& password);
  void clearCredentials();
  void getCredentials(std::string& user, std::string& password) const;
  // True only when both the user name and the password are non-empty: a user name alone does not count.
  bool hasCredentials() const { return !user_.empty() && !password_.empty(); }

  const std::string& getHost() const { return host_; }
  // Reads `host` as a numeric address of either family into the cached IP address. An IPv6 address is
  // stored as "[" + its canonical text + "]"; anything else (names, IPv4) is stored exactly as given.
  // Brackets in the argument are not understood: pass IPv6 literals bare. A `host` holding a NUL byte
  // is refused and the URL left unchanged: the address would be read from the text before the NUL
  // while the whole text became the host.
  void setHost(const std::string& host);
  // The host as a numeric address, or Invalid when the host is a name.
  const IpAddress& getIpAddress() const { return ipAddress_; }

  // 0 means "no port given".
  uint16_t getPort() const { return port_; }
  void setPort(uint16_t port) { port_ = port; }

  // Decoded segments; empty segments are kept ("/a/" gives {"a", ""}).
  const PathSegments& getPathSegments() const { return pathSegments_; }
  PathSegments& editPathSegments() { return pathSegments_; }
  void setPathSegments(PathSegments segments) { pathSegments_ = std::move(segments); }

  // Decoded (key, value) pairs in query order, duplicates kept.
  const QueryParameters& getQueryParameters() const { return queryParameters_; }
  QueryParameters& editQueryParameters() { return queryParameters_; }
  void setQueryParameters(QueryParameters parameters) { queryParameters_ = std::move(parameters); }
  void addQueryParameter(const std::string& key, const std::string& value) {
    queryParameters_.emplace_back(key, value);
  }

  // Decoded fragment, without "#". hasFragment() is true when a non-empty fragment is held.
  const std::string& getFragment() const { return fragment_; }
  bool hasFragment() const { return hasFragment_; }
  // Wipes the old fragment; an empty text is the same as clearFragment().
  void setFragment(const std::string& fragment);
  void clearFragment();

  // --- Encoding and decoding ----------------------------------------------------------------------
  // Percent-encodes every byte except letters, digits, "-", ".", "_" and "~", as "%" and two upper-case
  // hex digits. A space becomes "%20" (never "+"); "/", "?", "&", "=", ":" and "@" are escaped too, so
  // the result fits in any one component.
  static std::string UrlEncodeFromUtf8String(const std::string& text);
  // Turns "%XX" into bytes ("+" stays "+"). Fails, with `decoded` emptied, when the result is not valid
  // UTF-8 or holds an ASCII control character ("%0A", "%00", "%FF" all fail).
  static bool UrlDecodeToUtf8String(const std::string& encoded, std::string& decoded);
  // "k1=v1&k2=v2" with keys and values encoded, "=" written even for an empty value; a leading "?" with
  // the flag. An empty list gives "" (no "?").
  static std::string ToEncodedParameters(const QueryParameters& parameters, bool withQuestionMark);
  // Encoded segments joined by "/", without a leading or trailing "/"; a single empty segment gives "".
  static std::string ToEncodedPath(const PathSegments::const_iterator& first,
                                   const PathSegments::const_iterator& last);
  static std::string ToEncodedPath(const PathSegments& segments);
  // Replaces `segments` with the decoded non-empty pieces of `encodedPath` ("//a//b/" gives {"a","b"}).
  // When a piece fails to decode, `segments` is emptied and false returned.
  static bool FromEncodedPath(const std::string& encodedPath, PathSegments& segments);

  // The encoded path without its leading "/".
  std::string getEncodedPath() const { return ToEncodedPath(pathSegments_); }
  // FromEncodedPath into the path segments (emptied on failure).
  bool setEncodedPath(const std::string& encodedPath);
  // Replaces the segments with the non-empty pieces of `path`, taken as they are ("%41" stays "%41" and
  // is written "%2541").
  void setNonEncodedPath(const std::string& path);
  // Appends the decoded pieces of `encodedPath`. If any piece fails to decode nothing is appended and
  // nothing is reported; use setEncodedPath or FromEncodedPath to learn about failures.
  void pushEncodedPath(const std::string& encodedPath);
  // Appends the non-empty pieces of `path`, undecoded.
  void pushNonEncodedPath(const std::string& path);

  // scheme://[user:password@]host[:port][/path][?query][#fragment], every decoded component encoded
  // again; the host is written as stored. Credentials only with `withCredentials` and when both are
  // non-empty. "" when the URL is not valid.
  std::string toEncodedUrl(bool withCredentials) const;

  // base64 (standard alphabet) of user + ":" + password, without a "Basic " prefix.
  static void BasicEncodeCredentials(const std::string& user, const std::string& password,
                                     std::string& encoded);
  // BasicEncodeCredentials of this URL's credentials when hasCredentials(), else "".
  void getCredentialsBasicEncoded(std::string& encoded) const;

 protected:
  // Fields in declaration order; derived URL types copy them in their own assignment.
  std::string scheme_;
  std::string user_;
  std::string password_;
  std::string host_;
  std::string fragment_;
  IpAddress ipAddress_;
  QueryParameters queryParameters_;
  PathSegments pathSegments_;
  uint16_t port_ = 0;
  bool hasFragment_ = false;

 private:
  // Containers of the previous value whose memory a new parse reuses.
  struct Recycled {
    QueryParameters query;
    PathSegments path;
  };
  // Fills the components from `encodedUrl`; on failure returns false with the reason in `errorText`.
  bool parseEncoded(const std::string& encodedUrl, bool normalize, std::string& errorText,
                    Recycled& recycled);
  // setHost's second half: reads host_ as a numeric address of either family into ipAddress_ and, for
  // IPv6, rewrites host_ as "[" + canonical text + "]".
  void recognizeHost();
  // Wipes the secrets and empties the components without a virtual call.
  void clearOwnFields();
  // True when `text` is one of the strings this URL holds, which a parse must not clear before reading.
  bool holdsString(const std::string* text) const;
};

}  // namespace kx
