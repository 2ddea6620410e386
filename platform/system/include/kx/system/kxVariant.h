// kxVariant is the dynamic value every JSON document of the library travels in: a request body built by
// code, a token endpoint's answer, the claims of a JSON Web Token, a JWK set, a search request. It holds
// exactly one of seven forms: null, bool, signed 64-bit integer, double, UTF-8 string, list (ordered
// values) and map (string keys in ascending byte order, one value per key).
//
//   kx::kxVariant body;
//   body["size"] = 10;
//   body.setPath("query/bool/should", kx::kxVariant::kxVariantListImpl{});
//   const kx::kxVariant* total = response.getPath("hits/total/value");
//   int64_t count = total ? total->toInt64() : 0;
//
// Reading. The is* queries tell the form; the get* accessors hand out the stored value by reference (an
// empty string, list or map when the form differs); the to* conversions read a value as another form
// ("read as a string", "read as an integer") and say through an optional `ok` flag whether the value
// really had that meaning. JSON text is produced and parsed by kx::json::Json2Variant.
//
// Paths. "hits/total/value" names a value inside nested maps; on a list a piece is a decimal index
// ("hits/hits/0/_id"). The separator is an argument (default '/'), for keys that themselves hold a '/'.
//
// Depth. Copying, comparing and destroying never recurse, so a value nested 100000 levels deep (a
// hostile JSON document) costs memory but cannot overflow the stack.
//
// Thread-safety: thread-compatible (const calls may overlap; callers synchronise mutation).
// Ownership: a value type; copies are deep. Pointers and references handed out by get*/edit* stay valid
// until the value (or the container holding them) is modified or destroyed.
#pragma once

#include <kx/system/kxExport.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <limits>
#include <map>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

namespace kx {

class KX_EXPORT kxVariant {
 public:
  enum class Type : uint8_t { Null, Bool, Int64, Double, String, List, Map };

  // The list and map forms. The map compares keys transparently, so lookups take a std::string_view
  // without building a std::string.
  using kxVariantListImpl = std::vector<kxVariant>;
  using kxVariantMapImpl = std::map<std::string, kxVariant, std::less<>>;

  kxVariant() noexcept : type_(Type::Null), int_(0) {}
  kxVariant(std::nullptr_t) noexcept : kxVariant() {}
  kxVariant(bool value) noexcept : type_(Type::Bool), bool_(value) {}
  // Every integer type. An unsigned value above INT64_MAX becomes a double, the same rule the JSON
  // reader applies, so a value never changes form on a round trip through text.
  template <typename T,
            std::enable_if_t<std::is_integral_v<T> && !std::is_same_v<std::remove_cv_t<T>, bool>, int> = 0>
  kxVariant(T value) noexcept : type_(Type::Int64), int_(0) {
    if constexpr (std::is_signed_v<T> || sizeof(T) < sizeof(int64_t)) {
      int_ = static_cast<int64_t>(value);
    } else if (value <= static_cast<T>(std::numeric_limits<int64_t>::max())) {
      int_ = static_cast<int64_t>(value);
    } else {
      type_ = Type::Double;
      double_ = static_cast<double>(value);
    }
  }
  kxVariant(double value) noexcept : type_(Type::Double), double_(value) {}
  // A null pointer gives the null value.
  kxVariant(const char* text);
  kxVariant(char* text) : kxVariant(static_cast<const char*>(text)) {}
  // Any other pointer would silently turn into a bool.
  template <typename T>
  kxVariant(T*) = delete;
  kxVariant(std::string_view text);
  kxVariant(const std::string& text);
  kxVariant(std::string&& text) noexcept;
  kxVariant(const kxVariantListImpl& list);
  kxVariant(kxVariantListImpl&& list);
  kxVariant(const kxVariantMapImpl& map);
  kxVariant(kxVariantMapImpl&& map);

  kxVariant(const kxVariant& other);
  kxVariant(kxVariant&& other) noexcept;
  // A moved-from value is null. Both assignments accept a value taken from inside *this (v = v["child"]).
  kxVariant& operator=(const kxVariant& other);
  kxVariant& operator=(kxVariant&& other) noexcept;
  ~kxVariant();

  void swap(kxVariant& other) noexcept;

  Type getType() const { return type_; }
  // "null", "bool", "int64", "double", "string", "list", "map".
  static const char* TypeName(Type type);

  bool isNull() const { return type_ == Type::Null; }
  bool isBool() const { return type_ == Type::Bool; }
  bool isInt64() const { return type_ == Type::Int64; }
  bool isDouble() const { return type_ == Type::Double; }
  bool isNumber() const { return type_ == Type::Int64 || type_ == Type::Double; }
  bool isString() const { return type_ == Type::String; }
  bool isList() const { return type_ == Type::List; }
  bool isMap() const { return type_ == Type::Map; }

  // Returns the value to the null form.
  void setNull() noexcept { reset(); }

  // Conversions. Each returns the value read as the named form; `ok` (optional) is set to true when the
  // value had that meaning, false when the result is only the fallback.
  //   toString: string as is; bool "true"/"false"; integer in decimal; double in the shortest text that
  //             reads back to the same double ("0.1", "1e+300", "nan", "inf"); null, list, map "" (not ok).
  //   toInt64:  integer as is; bool 0/1; double truncated toward zero, saturated at the int64 limits (not
  //             ok when out of range or NaN, which gives 0); string: decimal integer text, else a
  //             floating-point text converted as a double, surrounding ASCII blanks ignored ("42", " 42 ",
  //             "4.2e1"); anything else 0 (not ok).
  //   toDouble: numbers as doubles; bool 0/1; string holding a decimal or floating text; else 0 (not ok).
  //   toBool:   bool as is; numbers true when non-zero; strings "true"/"1" and "false"/"0"; else false
  //             (not ok).
  std::string toString(bool* ok = nullptr) const;
  int64_t toInt64(bool* ok = nullptr) const;
  double toDouble(bool* ok = nullptr) const;
  bool toBool(bool* ok = nullptr) const;

  // The stored value of the given form; an empty string, list or map (a shared immutable object) when the
  // value has another form.
  const std::string& getString() const;
  const kxVariantListImpl& getList() const;
  const kxVariantMapImpl& getMap() const;

  // Mutable access to the given form. A value of another form is discarded and replaced by an empty one
  // first, so `v.editMap()["a"] = 1` always works.
  std::string& editString();
  kxVariantListImpl& editList();
  kxVariantMapImpl& editMap();

  // Map member access: the member named `key`, created null when missing. A value that is not a map is
  // replaced by an empty map first (as editMap).
  kxVariant& operator[](std::string_view key);
  // The member named `key` taken literally (no path splitting); nullptr when absent or not a map.
  const kxVariant* getMember(std::string_view key) const;
  kxVariant* editMember(std::string_view key);

  // Number of elements of a list or members of a map; 0 for every other form.
  size_t size() const;
  // The element at `index` of a list; nullptr when out of range or not a list.
  const kxVariant* getAt(size_t index) const;
  kxVariant* editAt(size_t index);
  // Appends to a list. A value that is not a list is replaced by an empty list first (as editList).
  kxVariant& append(kxVariant value);

  // Path access. The path is cut at every `separator`; each piece names a map member (an empty piece
  // names the empty key) or, on a list, an element by its decimal index (digits only, no sign, no leading
  // zero). The empty path names the value itself. getPath/editPath return nullptr when a piece is missing
  // or a scalar stands in the way.
  const kxVariant* getPath(std::string_view path, char separator = '/') const;
  kxVariant* editPath(std::string_view path, char separator = '/');
  // Stores `value` at `path`, creating missing members (and turning null values on the way into maps).
  // Returns false, and changes nothing, when a bool, number or string stands in the way or a list index
  // is not an existing element.
  bool setPath(std::string_view path, kxVariant value, char separator = '/');

  // The same three for a path whose first piece is a member of `map` (a token payload, a JWK set). The
  // empty path names no value here: GetPath/EditPath return nullptr and SetPath returns false.
  static const kxVariant* GetPath(const kxVariantMapImpl& map, std::string_view path, char separator = '/');
  static kxVariant* EditPath(kxVariantMapImpl& map, std::string_view path, char separator = '/');
  static bool SetPath(kxVariantMapImpl& map, std::string_view path, kxVariant value, char separator = '/');

  // Deep equality of form and value. Forms must match: the integer 1 differs from the double 1.0, as the
  // JSON texts "1" and "1.0" differ. Doubles compare as doubles (NaN is unequal to itself, 0.0 == -0.0).
  bool operator==(const kxVariant& other) const;
  bool operator!=(const kxVariant& other) const { return !(*this == other); }

 private:
  void reset() noexcept;
  void destroyContainer() noexcept;
  // Preconditions for both: *this is null.
  void stealFrom(kxVariant& other) noexcept;
  void copyFrom(const kxVariant& other);
  void copyTree(const kxVariant& other);
  void copyScalarFrom(const kxVariant& other);

  Type type_;
  union {
    bool bool_;
    int64_t int_;
    double double_;
    std::string string_;
    kxVariantListImpl* list_;
    kxVariantMapImpl* map_;
  };
};

inline void swap(kxVariant& a, kxVariant& b) noexcept { a.swap(b); }

// Namespace-level names for the two container forms.
using kxVariantListImpl = kxVariant::kxVariantListImpl;
using kxVariantMapImpl = kxVariant::kxVariantMapImpl;

}  // namespace kx
