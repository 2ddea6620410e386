// The search result scanner: one pass over each byte, resumable after any byte, no recursion. Its whole
// state is a handful of integers (see the header), one bit per open container and the text of the token
// in progress, so a piece may end anywhere: inside a key, an escape, a surrogate pair or a number.
//
// Only a few containers matter, all at fixed places from the root: the root object, "hits", "hits"/"total",
// the "hits"/"hits" array, each hit and its "_source". The scanner knows which of those it is in
// (context_); any other container is skipped as a whole (its keys are not even kept), counting only its
// nesting (skipDepth_) to know when the recognised context resumes. Raw values ("_source", "highlight",
// "error", "_score") are captured as spans of the current piece, appended once per piece, while the
// scanner goes on reading inside them.
#include <kx/elasticsearch/SearchResultParserInterface.h>
#include <kx/elasticsearch/SearchResultParserLambda.h>

#include <kx/system/kxLog.h>

#include <utf8.h>

#include <charconv>
#include <cstring>
#include <iterator>
#include <string_view>

namespace kx {
namespace elasticsearch {
namespace {

enum Context : unsigned char {
  kNoContext,  // outside the root value
  kRoot,
  kHits,
  kTotal,
  kHitList,
  kHit,
  kSource,
  kSkip,  // inside a value nobody asked for
};

// Open levels of the hit path below the root, the "hittag" of finish()'s report.
constexpr uint32_t kHitLevel[] = {0, 0, 1, 2, 2, 3, 4, 0};

// What the next byte may be; the value is finish()'s "nextis", 0 only once the root value closed.
enum Expect : unsigned char {
  kExpectEnd,
  kExpectRoot,
  kExpectValue,
  kExpectKeyOrClose,
  kExpectKey,
  kExpectColon,
  kExpectCommaOrClose,
  kExpectValueOrClose,
};

enum Token : unsigned char { kNoToken, kString, kScalar };

// The recognised keys, one set per object context.
enum Key : unsigned char {
  kOtherKey,
  kKeyScrollId,
  kKeyError,
  kKeyHits,
  kKeyTotal,
  kKeyValue,
  kKeyRelation,
  kKeyId,
  kKeyScore,
  kKeySource,
  kKeyHighlight,
  kKeyType,
  kKeyTs,
};

// What a value is taken as, decided when its first byte is read.
enum Role : unsigned char {
  kSkipped,
  kScrollId,
  kError,
  kHitsObject,
  kTotalValue,     // "hits"/"total" itself
  kTotalCount,     // "hits"/"total"/"value"
  kTotalRelation,
  kHitArray,
  kHitObject,
  kId,
  kScore,
  kSourceValue,
  kHighlight,
  kType,
  kTs,
};

// Bytes that end the fast run through a string: the quote, the backslash.
constexpr bool IsStringSpecial(unsigned char c) { return c == '"' || c == '\\'; }

// The first quote or backslash at or after `i`, or `size`. Eight bytes at a time: a byte equal to the
// one sought becomes zero after the XOR, and the classic zero-byte test marks it; borrows can only mark
// bytes above a real match, so the lowest mark is exact.
size_t FindStringSpecial(const char* data, size_t i, size_t size) {
  constexpr uint64_t kOnes = 0x0101010101010101ULL;
  constexpr uint64_t kHighs = 0x8080808080808080ULL;
  for (; i + 8 <= size; i += 8) {
    uint64_t word;
    std::memcpy(&word, data + i, 8);
    const uint64_t quote = word ^ (kOnes * '"');
    const uint64_t backslash = word ^ (kOnes * '\\');
    const uint64_t marks = (((quote - kOnes) & ~quote) | ((backslash - kOnes) & ~backslash)) & kHighs;
    if (marks != 0) return i + (static_cast<size_t>(__builtin_ctzll(marks)) >> 3);
  }
  while (i < size && !IsStringSpecial(static_cast<unsigned char>(data[i]))) ++i;
  return i;
}

// Bytes a number or a literal (true, false, null) is made of.
struct ScalarTable {
  bool byte[256] = {};
  constexpr ScalarTable() {
    for (int c = '0'; c <= '9'; ++c) byte[c] = true;
    for (int c = 'a'; c <= 'z'; ++c) byte[c] = true;
    for (int c = 'A'; c <= 'Z'; ++c) byte[c] = true;
    byte[static_cast<int>('+')] = byte[static_cast<int>('-')] = byte[static_cast<int>('.')] = true;
  }
};
constexpr ScalarTable kScalarBytes;

Key KeyOf(unsigned char context, std::string_view key) {
  switch (context) {
    case kRoot:
      if (key == "_scroll_id") return kKeyScrollId;
      if (key == "error") return kKeyError;
      if (key == "hits") return kKeyHits;
      break;
    case kHits:
      if (key == "total") return kKeyTotal;
      if (key == "hits") return kKeyHits;
      break;
    case kTotal:
      if (key == "value") return kKeyValue;
      if (key == "relation") return kKeyRelation;
      break;
    case kHit:
      if (key == "_id") return kKeyId;
      if (key == "_score") return kKeyScore;
      if (key == "_source") return kKeySource;
      if (key == "highlight") return kKeyHighlight;
      break;
    case kSource:
      if (key == "type") return kKeyType;
      if (key == "ts") return kKeyTs;
      break;
    default:
      break;
  }
  return kOtherKey;
}

Role RoleOf(unsigned char context, unsigned char key) {
  switch (context) {
    case kRoot:
      return key == kKeyScrollId ? kScrollId : key == kKeyError ? kError : key == kKeyHits ? kHitsObject : kSkipped;
    case kHits:
      return key == kKeyTotal ? kTotalValue : key == kKeyHits ? kHitArray : kSkipped;
    case kTotal:
      return key == kKeyValue ? kTotalCount : key == kKeyRelation ? kTotalRelation : kSkipped;
    case kHitList:
      return kHitObject;
    case kHit:
      return key == kKeyId ? kId : key == kKeyScore ? kScore : key == kKeySource ? kSourceValue
                                   : key == kKeyHighlight ? kHighlight : kSkipped;
    case kSource:
      return key == kKeyType ? kType : key == kKeyTs ? kTs : kSkipped;
    default:
      return kSkipped;
  }
}

// Decimal conversion of the whole text: 0 done, 1 not a number (or out of range), 2 trailing bytes.
int ToInt64(const std::string& text, int64_t& value) {
  const char* end = text.data() + text.size();
  const auto [ptr, ec] = std::from_chars(text.data(), end, value);
  if (ec != std::errc()) return 1;
  return ptr == end ? 0 : 2;
}

int HexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

}  // namespace

SearchResultParserInterface::SearchResultParserInterface() : kxIoDevice(DW_Write) {
  value_.reserve(1024);
  keyText_.reserve(1024);
  document_.reserve(10240);
  highlight_.reserve(2048);
}

SearchResultParserInterface::~SearchResultParserInterface() = default;

size_t SearchResultParserInterface::readBytes(char*, size_t) {
  setDeviceError("read not implemented");
  return 0;
}

bool SearchResultParserInterface::atEnd() const { return true; }

int64_t SearchResultParserInterface::getTotalHitCount(bool* exact) const {
  if (exact != nullptr) *exact = total_ >= 0 && totalExact_;
  return total_ >= 0 ? total_ : 0;
}

void SearchResultParserInterface::clearCurrentDocumentStates() {
  document_.clear();
  highlight_.clear();
  id_.clear();
  type_.clear();
  score_.clear();
  hasTimestamp_ = false;
  timestamp_ = 0;
}

void SearchResultParserInterface::reset() {
  objectDepth_ = arrayDepth_ = skipDepth_ = captureDepth_ = 0;
  escapeUnit_ = highSurrogate_ = 0;
  context_ = savedContext_ = kNoContext;
  expect_ = kExpectRoot;
  token_ = kNoToken;
  escape_ = key_ = keepRole_ = captureRole_ = 0;
  tokenIsKey_ = tsInThisSource_ = stopped_ = false;
  keep_ = capture_ = nullptr;
  containerIsArray_.clear();
  value_.clear();
  keyText_.clear();
  relation_.clear();
  scrollId_.clear();
  errorText_.clear();
  total_ = -1;
  totalExact_ = false;
  clearCurrentDocumentStates();
  clearDeviceError();
}

bool SearchResultParserInterface::finish(std::string* error) {
  const uint32_t hitTag = kHitLevel[context_ == kSkip ? savedContext_ : context_];
  // A token still open at the end is a value cut short, whatever the counters say.
  const uint32_t nextIs = expect_;  // a token in progress leaves what came before it, never the end
  if (objectDepth_ == 0 && arrayDepth_ == 0 && hitTag == 0 && nextIs == 0 && !hasDeviceError()) return true;
  if (error != nullptr) {
    *error = "Finish error : { => " + std::to_string(objectDepth_) + ", [ => " + std::to_string(arrayDepth_) +
             ", hittag => " + std::to_string(hitTag) + ", nextis => " + std::to_string(nextIs) +
             ", error => " + getDeviceErrorMsg();
  }
  return false;
}

bool SearchResultParserInterface::stop(std::string_view text) {
  stopped_ = true;
  setDeviceError(text);
  return false;
}

bool SearchResultParserInterface::failEscape() {
  kxLog::log(kLogTypeError, "esresultparser", "json to utf8 conversion error");
  stop("fail to parse json");
  return false;
}

bool SearchResultParserInterface::appendCodeUnit(uint32_t unit) {
  uint32_t codePoint = unit;
  if (highSurrogate_ != 0) {
    if (unit < 0xDC00 || unit > 0xDFFF) return failEscape();
    codePoint = 0x10000 + ((highSurrogate_ - 0xD800) << 10) + (unit - 0xDC00);
    highSurrogate_ = 0;
  } else if (unit >= 0xD800 && unit <= 0xDBFF) {
    highSurrogate_ = unit;
    return true;
  } else if (unit >= 0xDC00 && unit <= 0xDFFF) {
    return failEscape();
  }
  utf8::append(static_cast<char32_t>(codePoint), std::back_inserter(*keep_));
  return true;
}

void SearchResultParserInterface::flushSpans(const char* data, size_t end) {
  if (keep_ != nullptr && escape_ == 0 && end > keepFrom_) keep_->append(data + keepFrom_, end - keepFrom_);
  if (capture_ != nullptr && end > captureFrom_) capture_->append(data + captureFrom_, end - captureFrom_);
  keepFrom_ = captureFrom_ = end;
}

size_t SearchResultParserInterface::writeBytes(const char* data, size_t size) {
  if (!writeAllowed()) return 0;
  keepFrom_ = captureFrom_ = 0;
  size_t i = 0;
  while (i < size) {
    if (token_ == kString) {
      i = scanString(data, size, i);
    } else if (token_ == kScalar) {
      i = scanScalar(data, size, i);
    } else {
      const char c = data[i];
      bool ok = true;
      switch (c) {
        case ' ':
        case '\t':
        case '\n':
        case '\r':
          break;
        case '{':
        case '[':
          if (context_ == kSkip && (expect_ == kExpectValue || expect_ == kExpectValueOrClose)) {
            // Nested inside a skipped value: only the nesting counts.
            containerIsArray_.push_back(c == '[');
            ++(c == '[' ? arrayDepth_ : objectDepth_);
            ++skipDepth_;
            expect_ = c == '[' ? kExpectValueOrClose : kExpectKeyOrClose;
            break;
          }
          ok = (expect_ == kExpectValue || expect_ == kExpectValueOrClose || expect_ == kExpectRoot) &&
               beginValue(c, i);
          break;
        case '}':
        case ']': {
          const bool isArray = c == ']';
          const bool closable = isArray ? expect_ == kExpectValueOrClose || expect_ == kExpectCommaOrClose
                                        : expect_ == kExpectKeyOrClose || expect_ == kExpectCommaOrClose;
          ok = closable && !containerIsArray_.empty() && containerIsArray_.back() == isArray &&
               closeContainer(isArray, data, i);
          break;
        }
        case ':':
          ok = expect_ == kExpectColon;
          expect_ = kExpectValue;
          break;
        case ',':
          ok = expect_ == kExpectCommaOrClose;
          expect_ = containerIsArray_.empty() || containerIsArray_.back() ? kExpectValue : kExpectKey;
          break;
        case '"': {
          const bool isKey = expect_ == kExpectKeyOrClose || expect_ == kExpectKey;
          if (!isKey && expect_ != kExpectValue && expect_ != kExpectValueOrClose) {
            ok = false;
            break;
          }
          const bool skipped = context_ == kSkip || (!isKey && RoleOf(context_, key_) == kSkipped);
          if (!isKey && !skipped) {
            ok = beginValue(c, i);
            break;
          }
          // Keys and skipped strings: a string that closes in this piece without an escape is read in
          // place, a key compared where it stands.
          const size_t end = FindStringSpecial(data, i + 1, size);
          if (end < size && data[end] == '"') {
            key_ = isKey && !skipped ? KeyOf(context_, std::string_view(data + i + 1, end - i - 1)) : kOtherKey;
            expect_ = isKey ? kExpectColon : kExpectCommaOrClose;
            i = end;
            break;
          }
          token_ = kString;
          tokenIsKey_ = isKey;
          keep_ = isKey && !skipped ? &keyText_ : nullptr;
          keyText_.clear();
          keepRole_ = kSkipped;
          key_ = kOtherKey;
          keepFrom_ = i + 1;
          i = end - 1;  // the string resumes at its first escape or with the next piece
          break;
        }
        default: {
          if (!(c == '-' || (c >= '0' && c <= '9') || c == 't' || c == 'f' || c == 'n') ||
              (expect_ != kExpectValue && expect_ != kExpectValueOrClose)) {
            ok = false;
            break;
          }
          if (context_ != kSkip && RoleOf(context_, key_) != kSkipped) {
            ok = beginValue(c, i);
            break;
          }
          key_ = kOtherKey;
          size_t end = i + 1;
          while (end < size && kScalarBytes.byte[static_cast<unsigned char>(data[end])]) ++end;
          if (end < size) {
            expect_ = kExpectCommaOrClose;  // the byte after the scalar is read next
          } else {
            token_ = kScalar;
            keep_ = nullptr;
            keepRole_ = kSkipped;
          }
          i = end - 1;
          break;
        }
      }
      if (!ok) {
        stop("fail to parse json");
      }
      ++i;
    }
    if (stopped_) {
      // An error value cut short by a failure is no error text: what of it was read depends on where
      // the pieces ended.
      if (capture_ == &errorText_) errorText_.clear();
      keep_ = capture_ = nullptr;
      return i;
    }
  }
  flushSpans(data, size);
  return size;
}

bool SearchResultParserInterface::beginValue(char kind, size_t i) {
  const bool isContainer = kind == '{' || kind == '[';
  if (context_ == kNoContext) {
    if (!isContainer) return false;  // a search response is an object
    return openContainer(kind == '[', kind == '{' ? kRoot : kSkip);
  }
  const Role role = context_ == kSkip ? kSkipped : RoleOf(context_, key_);
  key_ = kOtherKey;
  unsigned char next = kSkip;  // the context of a container value
  std::string* keep = nullptr;
  std::string* capture = nullptr;
  switch (role) {
    case kSkipped:
      break;
    case kHitsObject:
    case kHitArray:
    case kHitObject:
      if (kind != (role == kHitArray ? '[' : '{')) {
        stop("unexpected hit tag count");
        return false;
      }
      next = role == kHitsObject ? kHits : role == kHitArray ? kHitList : kHit;
      break;
    case kError:
      capture = &errorText_;
      errorText_.clear();
      break;
    case kSourceValue:
      capture = &document_;
      document_.clear();
      if (kind == '{') {
        next = kSource;
        tsInThisSource_ = false;
      }
      break;
    case kHighlight:
      capture = &highlight_;
      highlight_.clear();
      break;
    case kScore:
      capture = &score_;
      score_.clear();
      break;
    case kTotalValue:
      if (kind == '{') {
        next = kTotal;
        break;
      }
      [[fallthrough]];
    default:  // a kept string or scalar
      if (isContainer) {
        stop("unexpected read raw data");
        return false;
      }
      keep = role == kScrollId ? &scrollId_ : role == kId ? &id_ : role == kType ? &type_
             : role == kTotalRelation ? &relation_ : &value_;
      keep->clear();
      break;
  }
  if (capture != nullptr) {
    if (isContainer && role == kScore) {
      stop("unexpected read raw data");
      return false;
    }
    capture_ = capture;
    captureRole_ = role;
    captureFrom_ = i;
    captureDepth_ = objectDepth_ + arrayDepth_;
  }
  if (isContainer) return openContainer(kind == '[', next);
  token_ = kind == '"' ? kString : kScalar;
  tokenIsKey_ = false;
  keep_ = keep;
  keepRole_ = role;
  keepFrom_ = kind == '"' ? i + 1 : i;
  return true;
}

bool SearchResultParserInterface::openContainer(bool isArray, unsigned char context) {
  containerIsArray_.push_back(isArray);
  ++(isArray ? arrayDepth_ : objectDepth_);
  if (context == kSkip) {
    if (context_ != kSkip) {
      savedContext_ = context_;
      context_ = kSkip;
      skipDepth_ = 0;
    }
    ++skipDepth_;
  } else {
    context_ = context;
  }
  expect_ = isArray ? kExpectValueOrClose : kExpectKeyOrClose;
  return true;
}

bool SearchResultParserInterface::closeContainer(bool isArray, const char* data, size_t i) {
  containerIsArray_.pop_back();
  --(isArray ? arrayDepth_ : objectDepth_);
  const uint32_t depth = objectDepth_ + arrayDepth_;
  bool hitClosed = false;
  switch (context_) {
    case kSkip:
      if (--skipDepth_ == 0) context_ = savedContext_;
      break;
    case kRoot:
      context_ = kNoContext;
      break;
    case kHits:
      context_ = kRoot;
      break;
    case kTotal:
    case kHitList:
      context_ = kHits;
      break;
    case kHit:
      context_ = kHitList;
      hitClosed = true;
      break;
    case kSource:
      context_ = kHit;
      break;
    default:
      return false;
  }
  expect_ = depth == 0 ? kExpectEnd : kExpectCommaOrClose;
  if (capture_ != nullptr && depth == captureDepth_ && !endToken(data, i + 1)) return false;
  if (hitClosed) {
    onNewDocument(id_, document_, score_, highlight_, type_, hasTimestamp_ ? &timestamp_ : nullptr);
    clearCurrentDocumentStates();
  }
  return true;
}

// The end of a value's last byte at `end` (exclusive) in the current piece: closes the kept token and
// the raw capture that end there, and acts on what they hold.
bool SearchResultParserInterface::endToken(const char* data, size_t end) {
  if (keep_ != nullptr) {
    if (end > keepFrom_) keep_->append(data + keepFrom_, end - keepFrom_);
    keep_ = nullptr;
    if (!tokenIsKey_ && !finishKept()) return false;
  }
  token_ = kNoToken;
  if (capture_ != nullptr && objectDepth_ + arrayDepth_ == captureDepth_) {
    if (end > captureFrom_) capture_->append(data + captureFrom_, end - captureFrom_);
    capture_ = nullptr;
    if (captureRole_ == kError) {
      stop("Receive an error msg " + errorText_);
      return false;
    }
  }
  return true;
}

bool SearchResultParserInterface::finishKept() {
  int64_t number = 0;
  switch (keepRole_) {
    case kTotalValue:
    case kTotalCount: {
      const int converted = ToInt64(value_, number);
      if (converted == 1) {
        stop(value_.empty() ? std::string("Fail to parse hits/total")
                                      : "Fail to parse hits/total " + value_);
        return false;
      }
      if (converted == 2) {
        stop("Fail to parse hits/total, not all bytes were consumed " + value_);
        return false;
      }
      if (total_ != -1) {
        stop("unexpected hit count");
        return false;
      }
      total_ = number;
      if (keepRole_ == kTotalValue) totalExact_ = true;
      return true;
    }
    case kTotalRelation:
      totalExact_ = relation_ == "eq";
      return true;
    case kTs: {
      const int converted = ToInt64(value_, number);
      if (converted == 1) {
        stop(value_.empty() ? std::string("Fail to parse 'ts'") : "Fail to parse 'ts' " + value_);
        return false;
      }
      if (converted == 2) {
        stop("Fail to parse 'ts', not all bytes were consumed " + value_);
        return false;
      }
      if (hasTimestamp_) {
        stop(tsInThisSource_ ? "Encounter two 'ts' entries" : "'ts' value was already parsed");
        return false;
      }
      hasTimestamp_ = true;
      tsInThisSource_ = true;
      timestamp_ = number;
      return true;
    }
    default:
      return true;
  }
}

size_t SearchResultParserInterface::scanString(const char* data, size_t size, size_t i) {
  while (i < size) {
    if (escape_ == 0) {
      if (highSurrogate_ != 0 && data[i] != '\\') {
        failEscape();
        return i;
      }
      i = FindStringSpecial(data, i, size);
      if (i == size) return i;
      if (data[i] == '"') {
        ++i;
        if (tokenIsKey_) {
          if (keep_ != nullptr && i - 1 > keepFrom_) keep_->append(data + keepFrom_, i - 1 - keepFrom_);
          key_ = keep_ != nullptr ? KeyOf(context_, keyText_) : kOtherKey;
          keep_ = nullptr;
          token_ = kNoToken;
          expect_ = kExpectColon;
          return i;
        }
        // The closing quote ends the kept text before it and the raw capture after it.
        if (keep_ != nullptr && i - 1 > keepFrom_) keep_->append(data + keepFrom_, i - 1 - keepFrom_);
        keepFrom_ = i;
        expect_ = kExpectCommaOrClose;
        endToken(data, i);
        return i;
      }
      if (keep_ != nullptr && i > keepFrom_) keep_->append(data + keepFrom_, i - keepFrom_);
      escape_ = 1;
      ++i;
      continue;
    }
    const char c = data[i++];
    if (keep_ == nullptr) {
      // Skipped and raw strings are not decoded: the byte after a backslash cannot end the string, and
      // the hex digits of \u cannot either.
      escape_ = 0;
      continue;
    }
    if (escape_ == 1) {
      char decoded = 0;
      switch (c) {
        case '"': decoded = '"'; break;
        case '\\': decoded = '\\'; break;
        case '/': decoded = '/'; break;
        case 'b': decoded = '\b'; break;
        case 'f': decoded = '\f'; break;
        case 'n': decoded = '\n'; break;
        case 'r': decoded = '\r'; break;
        case 't': decoded = '\t'; break;
        case 'u':
          escape_ = 2;
          escapeUnit_ = 0;
          continue;
        default:
          failEscape();
          return i;
      }
      if (highSurrogate_ != 0) {
        failEscape();
        return i;
      }
      keep_->push_back(decoded);
      escape_ = 0;
      keepFrom_ = i;
      continue;
    }
    const int digit = HexValue(c);
    if (digit < 0) {
      failEscape();
      return i;
    }
    escapeUnit_ = (escapeUnit_ << 4) | static_cast<uint32_t>(digit);
    if (++escape_ < 6) continue;
    escape_ = 0;
    keepFrom_ = i;
    if (!appendCodeUnit(escapeUnit_)) return i;
  }
  return i;
}

size_t SearchResultParserInterface::scanScalar(const char* data, size_t size, size_t i) {
  while (i < size && kScalarBytes.byte[static_cast<unsigned char>(data[i])]) ++i;
  if (i < size) {
    // The scalar ends before this byte, which the main loop reads next.
    expect_ = kExpectCommaOrClose;
    endToken(data, i);
  }
  return i;
}

void SearchResultParserLambda::onNewDocument(const std::string& id, const std::string& source,
                                             const std::string& score, const std::string& highlight,
                                             const std::string& type, const int64_t* timestamp) {
  function_(id, source, score, highlight, type, timestamp);
}

}  // namespace elasticsearch
}  // namespace kx
