// HttpHeaders is the multi-valued HTTP header collection: request headers, response headers, the
// output of authenticators and the headers of multipart parts. Names are matched case-insensitively
// (each name is stored lower-cased); each name keeps its own list of values in insertion order.
// Iteration visits names in ascending byte order of the lower-cased name, never in insertion order.
// Values are stored and returned byte for byte: never split, trimmed or validated by the collection.
//
//   kx::http::HttpHeaders headers;
//   headers.addHeaderValue("Accept", "text/html");
//   headers.addHeaderValue("ACCEPT", "application/json");   // same entry: "accept" -> [text/html, application/json]
//   headers.replaceHeader("Content-Type", "application/json");
//   headers.iterateOverHeaders([](const std::string& name, const std::list<std::string>& values) {
//     for (const auto& v : values) std::printf("%s: %s\n", name.c_str(), v.c_str());
//     return true;
//   });
//
// The static parsers turn raw header text into the collection's form:
//
//   std::string name;
//   std::list<std::string> values;
//   if (kx::http::HttpHeaders::SplitHttpHeader(line, length, name, values))
//     headers.addHeaderValues(name, values);
//
// Case folding and trimming are ASCII-only and ignore the process locale: 'A'..'Z' become 'a'..'z', the
// blanks are exactly " \t\n\v\f\r", and every byte >= 0x80 passes through unchanged, so a Turkish (or
// any other) locale gives the same names as "C".
//
// Thread-safety: thread-compatible value; const calls may overlap, callers synchronise mutation. The
// static parsers are stateless and may be called from any thread.
// Ownership: a plain value type, copied and assigned member-wise. A pointer returned by find() stays
// valid until its entry is removed (removeHeader, clear, assignment) or the collection is destroyed;
// adding other names does not invalidate it.
#pragma once

#include <kx/system/kxExport.h>

#include <cstddef>
#include <functional>
#include <list>
#include <map>
#include <string>
#include <vector>

namespace kx {
namespace http {

class KX_EXPORT HttpHeaders {
 public:
  HttpHeaders() = default;

  // The lower-cased copy of `name` used as the key: ASCII 'A'..'Z' folded, every other byte kept;
  // nothing is trimmed, so " Accept" and "Accept" are different names.
  static std::string NormalizeHeaderName(const std::string& name);

  void clear();
  // True when no name is present (a name with no values counts as present).
  bool empty() const { return headers.empty(); }

  // Same names with the same values in the same order.
  bool operator==(const HttpHeaders& other) const { return headers == other.headers; }
  bool operator!=(const HttpHeaders& other) const { return !(*this == other); }

  // The value list of `name`, or null when the name is absent. A name set with replaceHeader(name)
  // is present with an empty list. The list may be modified in place through the non-const form.
  std::list<std::string>* find(const std::string& name);
  const std::list<std::string>* find(const std::string& name) const;

  // True when an entry exists for `name`, even one with no values.
  bool contains(const std::string& name) const;

  // Erases the entry and all of its values; an absent name is a no-op.
  void removeHeader(const std::string& name);

  // Creates the entry when absent and appends `value` after the existing values.
  void addHeaderValue(const std::string& name, const std::string& value);
  // Creates the entry when absent and appends every element of `values` in order; an empty `values`
  // still creates the entry.
  void addHeaderValues(const std::string& name, const std::list<std::string>& values);
  void addHeaderValues(const std::string& name, const std::vector<std::string>& values);

  // Creates the entry when absent and removes all its values: the name stays present with none.
  void replaceHeader(const std::string& name);
  // Afterwards the header has exactly the one value `value`.
  void replaceHeader(const std::string& name, const std::string& value);

  // Merges `other` into this collection: for every name of `other` its values are appended after the
  // values already held here. Nothing is replaced and duplicates are kept. Merging a collection into
  // itself doubles every value list.
  void addHeaders(const HttpHeaders& other);

  // Calls `visitor` for each entry in ascending name order; the mutable form lets the visitor edit
  // the values in place. Stops at the first call that returns false and returns false; returns true
  // when every entry was visited (also when the collection is empty, whatever `visitor` is). An empty
  // `visitor` on a non-empty collection returns false instead of throwing std::bad_function_call.
  bool iterateOverHeaders(std::function<bool(const std::string& name, std::list<std::string>& values)> visitor);
  bool iterateOverHeaders(
      std::function<bool(const std::string& name, const std::list<std::string>& values)> visitor) const;

  // Cuts one raw header line (`length` bytes, not necessarily NUL-terminated, usually still ending in
  // CR LF) into a lower-cased, trimmed name and its values; `name` and `values` are emptied first.
  //  - "Name: v1, v2\r\n" gives "name" and [v1, v2], split by ParseMultiValueHeader.
  //  - Date-like headers ("date", "host", "content-location", "expires", "last-modified",
  //    "retry-after", "accept-datetime", "if-modified-since", "if-unmodified-since") keep their
  //    trimmed value as one element, commas included.
  //  - "Name:" gives no value; "Name:\r\n" gives one empty value (the text after ':' is present but
  //    blank).
  //  - A line without ':' (a status line such as "HTTP/1.1 200 OK") becomes a name of its own, trimmed
  //    but not lower-cased, with no values; callers store it as a value-less header.
  // Returns false for an empty name (a blank line, ": x") and for an unclosed double quote in a
  // split value (then `values` is empty). A NUL byte ends the line, exactly as it ends the text of
  // ParseMultiValueHeader: what follows it is ignored, so no name or value ever holds a NUL ("X: a\0b"
  // gives [a]; a line starting with NUL is a blank line).
  static bool SplitHttpHeader(const char* line, size_t length, std::string& name,
                              std::list<std::string>& values);

  // Splits the NUL-terminated `text` at commas outside double-quoted runs and appends each item,
  // trimmed but otherwise as written (quotes and backslashes kept), to `values`. Empty items are kept:
  // "a,,b" gives three values, "" gives one empty value. Inside quotes a backslash escapes the next
  // quote or backslash; outside quotes a backslash suppresses every later opening quote of the text.
  // Returns false and leaves `values` empty when a quoted run is still open at the end, or when
  // `text` is null.
  static bool ParseMultiValueHeader(const char* text, std::list<std::string>& values);

  // Turns "key=value" items (e.g. the values SplitHttpHeader yields for "Keep-Alive: timeout=5, max=100")
  // into `pairs`, which is not cleared first. Each item is cut at its first '=', key and
  // value trimmed, nothing else changed (quotes are kept, case is kept). Returns false at the first
  // item that is empty, has no '=', or names a key `pairs` already holds (the first value stays and
  // later items are not examined); pairs stored before that item stay. An empty `items` gives true.
  static bool ExtractHeaderKeyPairValues(const std::list<std::string>& items,
                                         std::map<std::string, std::string>& pairs);

 private:
  std::list<std::string>& findOrCreate(const std::string& name);

  std::map<std::string, std::list<std::string>> headers;
};

}  // namespace http
}  // namespace kx
