#include <kx/system/kxVariant.h>

#include <kx/system/kxStringUtils.h>

#include <charconv>
#include <cmath>
#include <new>
#include <utility>

namespace kx {

namespace {

bool IsContainer(const kxVariant& value) { return value.isList() || value.isMap(); }

// A list index piece: decimal digits only, no sign, no leading zero ("0" itself is fine), so that every
// element has exactly one spelling and "+1", " 1" or "01" never alias it.
bool ParseIndex(std::string_view piece, size_t& index) {
  if (piece.empty() || (piece.size() > 1 && piece[0] == '0')) return false;
  for (char c : piece) {
    if (c < '0' || c > '9') return false;
  }
  const auto result = std::from_chars(piece.data(), piece.data() + piece.size(), index);
  return result.ec == std::errc() && result.ptr == piece.data() + piece.size();
}

// The whole of `text` as a double; from_chars is locale-free and rejects a leading '+', as JSON does.
bool ParseDouble(std::string_view text, double& value) {
  if (text.empty()) return false;
  const auto result = std::from_chars(text.data(), text.data() + text.size(), value);
  return result.ec == std::errc() && result.ptr == text.data() + text.size();
}

int64_t DoubleToInt64(double value, bool& inRange) {
  // 2^63 is exactly representable; every double below it and at or above -2^63 fits in an int64_t.
  constexpr double kLimit = 9223372036854775808.0;
  inRange = false;
  if (std::isnan(value)) return 0;
  if (value >= kLimit) return std::numeric_limits<int64_t>::max();
  if (value < -kLimit) return std::numeric_limits<int64_t>::min();
  inRange = true;
  return static_cast<int64_t>(value);
}

void SetOk(bool* ok, bool value) {
  if (ok) *ok = value;
}

// One step of a path walk: the member or element `piece` names, or nullptr.
const kxVariant* Child(const kxVariant& node, std::string_view piece) {
  if (node.isList()) {
    size_t index = 0;
    return ParseIndex(piece, index) ? node.getAt(index) : nullptr;
  }
  return node.getMember(piece);
}

kxVariant* Child(kxVariant& node, std::string_view piece) {
  return const_cast<kxVariant*>(Child(static_cast<const kxVariant&>(node), piece));
}

// Walks the pieces of a non-empty `path` from `node`.
template <typename V>
V* Walk(V* node, std::string_view path, char separator) {
  size_t start = 0;
  while (node) {
    const size_t end = path.find(separator, start);
    const std::string_view piece = path.substr(start, end == std::string_view::npos ? end : end - start);
    node = Child(*node, piece);
    if (end == std::string_view::npos) return node;
    start = end + 1;
  }
  return nullptr;
}

// The first piece of `path` and the rest after its separator; `hasRest` tells "a" from "a/".
std::string_view FirstPiece(std::string_view path, char separator, std::string_view& rest, bool& hasRest) {
  const size_t end = path.find(separator);
  hasRest = end != std::string_view::npos;
  rest = hasRest ? path.substr(end + 1) : std::string_view();
  return path.substr(0, end);
}

// The node `piece` names below `node` for a store, created when missing; nullptr when it cannot be made
// without destroying a value.
kxVariant* ChildForStore(kxVariant& node, std::string_view piece) {
  if (node.isNull()) node.editMap();
  if (node.isMap()) {
    auto& map = node.editMap();
    auto it = map.find(piece);
    if (it == map.end()) it = map.emplace(std::string(piece), kxVariant()).first;
    return &it->second;
  }
  if (node.isList()) {
    size_t index = 0;
    return ParseIndex(piece, index) ? node.editAt(index) : nullptr;
  }
  return nullptr;
}

// Whether a store along `path` below `node` would succeed, so that a failing setPath changes nothing: a
// store can only fail on a node that already exists, and everything below a created node is new.
bool CanStore(const kxVariant* node, std::string_view path, char separator) {
  size_t start = 0;
  while (node) {
    if (node->isNull()) return true;
    if (!IsContainer(*node)) return false;
    const size_t end = path.find(separator, start);
    const std::string_view piece = path.substr(start, end == std::string_view::npos ? end : end - start);
    const kxVariant* child = Child(*node, piece);
    if (!child) return node->isMap();  // a missing member is created; a bad list index is fatal
    if (end == std::string_view::npos) return true;
    node = child;
    start = end + 1;
  }
  return false;
}

kxVariant* StoreWalk(kxVariant* node, std::string_view path, char separator) {
  size_t start = 0;
  while (node) {
    const size_t end = path.find(separator, start);
    const std::string_view piece = path.substr(start, end == std::string_view::npos ? end : end - start);
    node = ChildForStore(*node, piece);
    if (end == std::string_view::npos) return node;
    start = end + 1;
  }
  return nullptr;
}

}  // namespace

kxVariant::kxVariant(const char* text) : type_(Type::Null), int_(0) {
  if (text) {
    new (&string_) std::string(text);
    type_ = Type::String;
  }
}

kxVariant::kxVariant(std::string_view text) : type_(Type::String), string_(text) {}
kxVariant::kxVariant(const std::string& text) : type_(Type::String), string_(text) {}
kxVariant::kxVariant(std::string&& text) noexcept : type_(Type::String), string_(std::move(text)) {}
// Element copies go through the copy constructor, which copies each element's own subtree without
// recursion, so these are only one level deep.
kxVariant::kxVariant(const kxVariantListImpl& list) : type_(Type::List), list_(new kxVariantListImpl(list)) {}
kxVariant::kxVariant(kxVariantListImpl&& list) : type_(Type::List), list_(new kxVariantListImpl(std::move(list))) {}
kxVariant::kxVariant(const kxVariantMapImpl& map) : type_(Type::Map), map_(new kxVariantMapImpl(map)) {}
kxVariant::kxVariant(kxVariantMapImpl&& map) : type_(Type::Map), map_(new kxVariantMapImpl(std::move(map))) {}

kxVariant::kxVariant(const kxVariant& other) : type_(Type::Null), int_(0) { copyFrom(other); }

kxVariant::kxVariant(kxVariant&& other) noexcept : type_(Type::Null), int_(0) { stealFrom(other); }

kxVariant& kxVariant::operator=(const kxVariant& other) {
  if (this != &other) {
    kxVariant copy(other);
    swap(copy);
  }
  return *this;
}

kxVariant& kxVariant::operator=(kxVariant&& other) noexcept {
  if (this != &other) {
    // Take `other` out first: it may live inside *this and would die with the old value.
    kxVariant taken(std::move(other));
    swap(taken);
  }
  return *this;
}

kxVariant::~kxVariant() { reset(); }

void kxVariant::swap(kxVariant& other) noexcept {
  if (this == &other) return;
  kxVariant held;
  held.stealFrom(*this);
  stealFrom(other);
  other.stealFrom(held);
}

void kxVariant::stealFrom(kxVariant& other) noexcept {
  switch (other.type_) {
    case Type::Null:
      break;
    case Type::Bool:
      bool_ = other.bool_;
      break;
    case Type::Int64:
      int_ = other.int_;
      break;
    case Type::Double:
      double_ = other.double_;
      break;
    case Type::String:
      new (&string_) std::string(std::move(other.string_));
      other.string_.~basic_string();
      break;
    case Type::List:
      list_ = other.list_;
      break;
    case Type::Map:
      map_ = other.map_;
      break;
  }
  type_ = other.type_;
  other.type_ = Type::Null;
  other.int_ = 0;
}

void kxVariant::copyScalarFrom(const kxVariant& other) {
  switch (other.type_) {
    case Type::Null:
    case Type::List:
    case Type::Map:
      return;
    case Type::Bool:
      bool_ = other.bool_;
      break;
    case Type::Int64:
      int_ = other.int_;
      break;
    case Type::Double:
      double_ = other.double_;
      break;
    case Type::String:
      new (&string_) std::string(other.string_);
      break;
  }
  type_ = other.type_;
}

void kxVariant::copyFrom(const kxVariant& other) {
  // Containers are copied level by level from an explicit work list, never by recursion. Each target is a
  // valid (null) value before it is filled, so an allocation failure half way leaves a tree that reset()
  // can free.
  try {
    copyTree(other);
  } catch (...) {
    reset();
    throw;
  }
}

void kxVariant::copyTree(const kxVariant& other) {
  std::vector<std::pair<const kxVariant*, kxVariant*>> work;
  work.emplace_back(&other, this);
  while (!work.empty()) {
    const auto [from, to] = work.back();
    work.pop_back();
    if (from->type_ == Type::List) {
      to->list_ = new kxVariantListImpl(from->list_->size());
      to->type_ = Type::List;
      for (size_t i = 0; i < from->list_->size(); ++i) {
        const kxVariant& child = (*from->list_)[i];
        kxVariant& target = (*to->list_)[i];
        if (IsContainer(child)) {
          work.emplace_back(&child, &target);
        } else {
          target.copyScalarFrom(child);
        }
      }
    } else if (from->type_ == Type::Map) {
      to->map_ = new kxVariantMapImpl();
      to->type_ = Type::Map;
      for (const auto& [key, child] : *from->map_) {
        kxVariant& target = to->map_->emplace_hint(to->map_->end(), key, kxVariant())->second;
        if (IsContainer(child)) {
          work.emplace_back(&child, &target);
        } else {
          target.copyScalarFrom(child);
        }
      }
    } else {
      to->copyScalarFrom(*from);
    }
  }
}

void kxVariant::reset() noexcept {
  switch (type_) {
    case Type::String:
      string_.~basic_string();
      break;
    case Type::List:
    case Type::Map:
      destroyContainer();
      break;
    default:
      break;
  }
  type_ = Type::Null;
  int_ = 0;
}

void kxVariant::destroyContainer() noexcept {
  // Deleting a container destroys its elements, and an element that is itself a container would recurse
  // once per nesting level. Non-empty nested containers are therefore moved out into a flat pending list
  // first; each one is emptied the same way before it dies, so the recursion never goes deeper than one
  // level whatever the depth of the value.
  std::vector<kxVariant> pending;
  auto detachNested = [&pending](kxVariant& node) {
    auto detach = [&pending](kxVariant& child) {
      if (child.size() != 0) pending.emplace_back(std::move(child));
    };
    if (node.type_ == Type::List) {
      for (kxVariant& child : *node.list_) detach(child);
    } else if (node.type_ == Type::Map) {
      for (auto& member : *node.map_) detach(member.second);
    }
  };
  detachNested(*this);
  if (type_ == Type::List) {
    delete list_;
  } else {
    delete map_;
  }
  type_ = Type::Null;
  while (!pending.empty()) {
    kxVariant node(std::move(pending.back()));
    pending.pop_back();
    detachNested(node);
  }
}

const char* kxVariant::TypeName(Type type) {
  switch (type) {
    case Type::Null:
      return "null";
    case Type::Bool:
      return "bool";
    case Type::Int64:
      return "int64";
    case Type::Double:
      return "double";
    case Type::String:
      return "string";
    case Type::List:
      return "list";
    case Type::Map:
      return "map";
  }
  return "unknown";
}

std::string kxVariant::toString(bool* ok) const {
  SetOk(ok, true);
  switch (type_) {
    case Type::String:
      return string_;
    case Type::Bool:
      return bool_ ? "true" : "false";
    case Type::Int64:
      return kxStringUtils::ToDecimal(int_);
    case Type::Double: {
      // Shortest text that reads back to the same double; "nan"/"inf" for the non-finite values.
      char buffer[64];
      const auto result = std::to_chars(buffer, buffer + sizeof buffer, double_);
      return std::string(buffer, result.ptr);
    }
    case Type::Null:
    case Type::List:
    case Type::Map:
      break;
  }
  SetOk(ok, false);
  return std::string();
}

int64_t kxVariant::toInt64(bool* ok) const {
  bool valid = true;
  int64_t value = 0;
  switch (type_) {
    case Type::Int64:
      value = int_;
      break;
    case Type::Bool:
      value = bool_ ? 1 : 0;
      break;
    case Type::Double:
      value = DoubleToInt64(double_, valid);
      break;
    case Type::String: {
      const std::string_view text = kxStringUtils::TrimView(string_);
      double asDouble = 0;
      if (kxStringUtils::FromDecimal(text, value)) break;
      if (ParseDouble(text, asDouble)) {
        value = DoubleToInt64(asDouble, valid);
      } else {
        valid = false;
      }
      break;
    }
    case Type::Null:
    case Type::List:
    case Type::Map:
      valid = false;
      break;
  }
  SetOk(ok, valid);
  return value;
}

double kxVariant::toDouble(bool* ok) const {
  bool valid = true;
  double value = 0;
  switch (type_) {
    case Type::Double:
      value = double_;
      break;
    case Type::Int64:
      value = static_cast<double>(int_);
      break;
    case Type::Bool:
      value = bool_ ? 1 : 0;
      break;
    case Type::String:
      valid = ParseDouble(kxStringUtils::TrimView(string_), value);
      if (!valid) value = 0;
      break;
    case Type::Null:
    case Type::List:
    case Type::Map:
      valid = false;
      break;
  }
  SetOk(ok, valid);
  return value;
}

bool kxVariant::toBool(bool* ok) const {
  SetOk(ok, true);
  switch (type_) {
    case Type::Bool:
      return bool_;
    case Type::Int64:
      return int_ != 0;
    case Type::Double:
      return double_ != 0;
    case Type::String: {
      const std::string_view text = kxStringUtils::TrimView(string_);
      if (text == "true" || text == "1") return true;
      if (text == "false" || text == "0") return false;
      break;
    }
    case Type::Null:
    case Type::List:
    case Type::Map:
      break;
  }
  SetOk(ok, false);
  return false;
}

const std::string& kxVariant::getString() const {
  static const std::string kEmpty;
  return type_ == Type::String ? string_ : kEmpty;
}

const kxVariant::kxVariantListImpl& kxVariant::getList() const {
  static const kxVariantListImpl kEmpty;
  return type_ == Type::List ? *list_ : kEmpty;
}

const kxVariant::kxVariantMapImpl& kxVariant::getMap() const {
  static const kxVariantMapImpl kEmpty;
  return type_ == Type::Map ? *map_ : kEmpty;
}

std::string& kxVariant::editString() {
  if (type_ != Type::String) {
    reset();
    new (&string_) std::string();
    type_ = Type::String;
  }
  return string_;
}

kxVariant::kxVariantListImpl& kxVariant::editList() {
  if (type_ != Type::List) {
    auto* list = new kxVariantListImpl();
    reset();
    list_ = list;
    type_ = Type::List;
  }
  return *list_;
}

kxVariant::kxVariantMapImpl& kxVariant::editMap() {
  if (type_ != Type::Map) {
    auto* map = new kxVariantMapImpl();
    reset();
    map_ = map;
    type_ = Type::Map;
  }
  return *map_;
}

kxVariant& kxVariant::operator[](std::string_view key) {
  auto& map = editMap();
  auto it = map.find(key);
  if (it == map.end()) it = map.emplace(std::string(key), kxVariant()).first;
  return it->second;
}

const kxVariant* kxVariant::getMember(std::string_view key) const {
  if (type_ != Type::Map) return nullptr;
  auto it = map_->find(key);
  return it == map_->end() ? nullptr : &it->second;
}

kxVariant* kxVariant::editMember(std::string_view key) {
  return const_cast<kxVariant*>(static_cast<const kxVariant*>(this)->getMember(key));
}

size_t kxVariant::size() const {
  if (type_ == Type::List) return list_->size();
  if (type_ == Type::Map) return map_->size();
  return 0;
}

const kxVariant* kxVariant::getAt(size_t index) const {
  if (type_ != Type::List || index >= list_->size()) return nullptr;
  return &(*list_)[index];
}

kxVariant* kxVariant::editAt(size_t index) {
  return const_cast<kxVariant*>(static_cast<const kxVariant*>(this)->getAt(index));
}

kxVariant& kxVariant::append(kxVariant value) {
  auto& list = editList();
  list.push_back(std::move(value));
  return list.back();
}

const kxVariant* kxVariant::getPath(std::string_view path, char separator) const {
  return path.empty() ? this : Walk(this, path, separator);
}

kxVariant* kxVariant::editPath(std::string_view path, char separator) {
  return path.empty() ? this : Walk(this, path, separator);
}

bool kxVariant::setPath(std::string_view path, kxVariant value, char separator) {
  if (path.empty()) {
    *this = std::move(value);
    return true;
  }
  if (!CanStore(this, path, separator)) return false;
  kxVariant* target = StoreWalk(this, path, separator);
  if (!target) return false;
  *target = std::move(value);
  return true;
}

const kxVariant* kxVariant::GetPath(const kxVariantMapImpl& map, std::string_view path, char separator) {
  if (path.empty()) return nullptr;
  std::string_view rest;
  bool hasRest = false;
  const std::string_view first = FirstPiece(path, separator, rest, hasRest);
  auto it = map.find(first);
  if (it == map.end()) return nullptr;
  return hasRest ? Walk(&it->second, rest, separator) : &it->second;
}

kxVariant* kxVariant::EditPath(kxVariantMapImpl& map, std::string_view path, char separator) {
  return const_cast<kxVariant*>(GetPath(static_cast<const kxVariantMapImpl&>(map), path, separator));
}

bool kxVariant::SetPath(kxVariantMapImpl& map, std::string_view path, kxVariant value, char separator) {
  if (path.empty()) return false;
  std::string_view rest;
  bool hasRest = false;
  const std::string_view first = FirstPiece(path, separator, rest, hasRest);
  auto it = map.find(first);
  if (it == map.end()) {
    // Nothing below a new member can fail.
    it = map.emplace(std::string(first), kxVariant()).first;
  } else if (hasRest && !CanStore(&it->second, rest, separator)) {
    return false;
  }
  kxVariant* target = hasRest ? StoreWalk(&it->second, rest, separator) : &it->second;
  if (!target) return false;
  *target = std::move(value);
  return true;
}

bool kxVariant::operator==(const kxVariant& other) const {
  // Compared level by level from an explicit work list, like copyFrom, so depth costs no stack.
  std::vector<std::pair<const kxVariant*, const kxVariant*>> work;
  work.emplace_back(this, &other);
  while (!work.empty()) {
    const auto [a, b] = work.back();
    work.pop_back();
    if (a->type_ != b->type_) return false;
    switch (a->type_) {
      case Type::Null:
        break;
      case Type::Bool:
        if (a->bool_ != b->bool_) return false;
        break;
      case Type::Int64:
        if (a->int_ != b->int_) return false;
        break;
      case Type::Double:
        if (!(a->double_ == b->double_)) return false;
        break;
      case Type::String:
        if (a->string_ != b->string_) return false;
        break;
      case Type::List:
        if (a->list_->size() != b->list_->size()) return false;
        for (size_t i = 0; i < a->list_->size(); ++i) work.emplace_back(&(*a->list_)[i], &(*b->list_)[i]);
        break;
      case Type::Map: {
        if (a->map_->size() != b->map_->size()) return false;
        auto itB = b->map_->begin();
        for (auto itA = a->map_->begin(); itA != a->map_->end(); ++itA, ++itB) {
          if (itA->first != itB->first) return false;
          work.emplace_back(&itA->second, &itB->second);
        }
        break;
      }
    }
  }
  return true;
}

}  // namespace kx
