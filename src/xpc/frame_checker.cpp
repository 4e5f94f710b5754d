#include <array>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "frame.h"

namespace carrow::detail::xpc {

namespace {

using Verdict = CheckResult::Verdict;

enum class Role : std::uint8_t {
  top,        // the message array
  positions,  // the arguments of a call or the values of a reply
  pair,       // one [class, value]
  free,       // anything inside a value
};

struct Level {
  Role role;
  std::size_t declared;
  std::size_t index;
};

// No count of values is expected: a late reply, checked for shape only.
constexpr std::size_t kAnyCount = static_cast<std::size_t>(-1);

// The length of each kind of message.
constexpr std::array<std::size_t, 6> kArity = {3, 2, 4, 3, 4, 2};

// The SAX handler of the checking pass. Every callback answers whether the walk goes on.
class Checker {
 public:
  using json = nlohmann::json;

  explicit Checker(const FrameContext& context) : context_(context) {}

  CheckResult finish(bool parsed) {
    if (!parsed && result_.problem.empty()) result_.problem = "ill-formed CBOR";
    if (!parsed || !sawTop_) {
      if (result_.problem.empty()) result_.problem = "empty message";
      result_.verdict = Verdict::malformed;
      return std::move(result_);
    }
    result_.verdict = result_.violation ? Verdict::disallowed : Verdict::ok;
    return std::move(result_);
  }

  bool null() { return scalar(Kind::other); }
  bool boolean(bool) { return scalar(Kind::other); }
  bool number_integer(json::number_integer_t) { return scalar(Kind::signedNumber); }
  bool number_unsigned(json::number_unsigned_t value) {
    unsigned_ = value;
    return scalar(Kind::unsignedNumber);
  }
  bool number_float(json::number_float_t, const std::string&) { return scalar(Kind::other); }
  bool string(std::string& text) {
    if (text.size() > context_.limits.maxStringBytes) return fail("a text is too long");
    if (!isValidUTF8(text)) return fail("a text is not valid UTF-8");
    text_ = &text;
    return scalar(Kind::text);
  }
  bool binary(json::binary_t& bytes) {
    if (bytes.size() > context_.limits.maxStringBytes) return fail("a byte string is too long");
    return scalar(Kind::other);
  }
  bool start_object(std::size_t count) {
    if (!enter(Kind::object)) return false;
    return open(Role::free, count);
  }
  bool key(std::string& text) {
    if (text.size() > context_.limits.maxStringBytes) return fail("a key is too long");
    if (!isValidUTF8(text)) return fail("a key is not valid UTF-8");
    return true;
  }
  bool end_object() { return close(); }
  bool start_array(std::size_t count) {
    const Role role = childRole();
    if (!enter(Kind::array)) return false;
    return open(role, count);
  }
  bool end_array() { return close(); }
  bool parse_error(std::size_t, const std::string&, const nlohmann::detail::exception& error) {
    if (result_.problem.empty()) result_.problem = std::string("ill-formed CBOR: ") + error.what();
    return false;
  }

 private:
  enum class Kind : std::uint8_t { other, signedNumber, unsignedNumber, text, array, object };

  bool fail(std::string problem) {
    if (result_.problem.empty()) result_.problem = std::move(problem);
    return false;
  }

  // The role a container opened now plays, decided by where it sits.
  Role childRole() const {
    if (depth_ == 0) return Role::top;
    const Level& parent = stack_[depth_ - 1];
    if (parent.role == Role::top) return Role::positions;
    if (parent.role == Role::positions) return Role::pair;
    return Role::free;
  }

  bool open(Role role, std::size_t count) {
    // The walk over the heads has refused indefinite lengths and counts past the end already.
    if (count > context_.limits.maxContainerCount) {
      return fail("a declared count of " + std::to_string(count) + " is too large");
    }
    if (depth_ >= context_.limits.maxDepth || depth_ >= stack_.size())
      return fail("nesting deeper than the limit");
    if (role == Role::top && (count < 2 || count > 4)) return fail("a message of the wrong length");
    if (role == Role::pair && count != 2)
      return fail("a value without exactly a class and a value");
    if (role == Role::positions && expectedPositions_ != kAnyCount && count != expectedPositions_) {
      return fail("the wrong number of values for " + result_.selector);
    }
    stack_[depth_++] = Level{role, count, 0};
    if (role == Role::top) sawTop_ = true;
    return true;
  }

  bool close() {
    --depth_;
    return true;
  }

  bool scalar(Kind kind) { return enter(kind); }

  // Called for every value before it is taken in: counts it and checks what its position needs.
  bool enter(Kind kind) {
    if (++elements_ > context_.limits.maxTotalElements) return fail("too many elements");
    if (depth_ == 0) {
      if (kind != Kind::array) return fail("a message that is not an array");
      return true;
    }
    Level& parent = stack_[depth_ - 1];
    const std::size_t index = parent.index++;
    switch (parent.role) {
      case Role::top:
        return topField(parent, index, kind);
      case Role::positions:
        return kind == Kind::array || fail("a value without its class");
      case Role::pair:
        if (index == 0) return className(kind);
        return true;
      case Role::free:
        return true;
    }
    return true;
  }

  bool topField(const Level& top, std::size_t index, Kind kind) {
    if (index == 0) {
      if (kind != Kind::unsignedNumber || unsigned_ >= kArity.size()) {
        return fail("an unknown kind of message");
      }
      result_.kind = static_cast<FrameKind>(unsigned_);
      if (kArity[unsigned_] != top.declared) return fail("a message of the wrong length");
      return true;
    }
    switch (result_.kind) {
      case FrameKind::hello:
        if (index == 1) return kind == Kind::text || fail("a hello without a protocol name");
        return kind == Kind::unsignedNumber || fail("a hello without a digest");
      case FrameKind::reject:
        return kind == Kind::unsignedNumber || fail("a reject without a reason");
      case FrameKind::cancel:
        if (kind != Kind::unsignedNumber) return fail("a cancel without an id");
        result_.id = unsigned_;
        return true;
      case FrameKind::error:
        if (index == 1) {
          if (kind != Kind::unsignedNumber) return fail("an error without an id");
          result_.id = unsigned_;
          return true;
        }
        if (index == 2) return kind == Kind::text || fail("an error without a domain");
        return kind == Kind::signedNumber || kind == Kind::unsignedNumber
               || fail("an error without a code");
      case FrameKind::call:
        return callField(index, kind);
      case FrameKind::reply:
        return replyField(index, kind);
    }
    return fail("an unknown kind of message");
  }

  bool callField(std::size_t index, Kind kind) {
    if (index == 1) {
      if (kind != Kind::unsignedNumber) return fail("a call without an id");
      result_.id = unsigned_;
      return true;
    }
    if (index == 2) {
      if (kind != Kind::text) return fail("a call without a selector");
      result_.selector = *text_;
      if (context_.exported == nullptr) return fail("a call, but nothing is exported");
      method_ = context_.exported->protocol().method(result_.selector);
      if (method_ == nullptr) return fail("a call of the unknown method " + result_.selector);
      interface_ = context_.exported;
      ofReply_ = false;
      expectedPositions_ = method_->argumentClasses.size();
      return true;
    }
    return kind == Kind::array || fail("a call without arguments");
  }

  bool replyField(std::size_t index, Kind kind) {
    if (index == 1) {
      if (kind != Kind::unsignedNumber) return fail("a reply without an id");
      result_.id = unsigned_;
      auto selector = context_.pendingSelector ? context_.pendingSelector(unsigned_) : std::nullopt;
      if (selector && context_.remote != nullptr) {
        result_.selector = std::move(*selector);
        method_ = context_.remote->protocol().method(result_.selector);
        if (method_ == nullptr) return fail("a reply to the unknown method " + result_.selector);
        interface_ = context_.remote;
        ofReply_ = true;
        expectedPositions_ = method_->replyClasses.size();
      }
      return true;
    }
    return kind == Kind::array || fail("a reply without values");
  }

  bool className(Kind kind) {
    if (kind != Kind::text) return fail("a class name that is not text");
    if (interface_ == nullptr) return true;  // a late reply: checked for shape only, never decoded
    const auto position = static_cast<std::int64_t>(stack_[1].index - 1);
    const auto* allowed = interface_->classes(result_.selector, position, ofReply_);
    if (allowed == nullptr) return fail("a position the method does not have");
    if (!result_.violation && allowed->find(*text_) == allowed->end()) {
      result_.violation = ClassViolation{result_.selector, position, ofReply_, *text_};
    }
    return true;
  }

  const FrameContext& context_;
  CheckResult result_;
  std::array<Level, 64> stack_{};
  std::size_t depth_ = 0;
  std::size_t elements_ = 0;
  bool sawTop_ = false;
  std::uint64_t unsigned_ = 0;
  const std::string* text_ = nullptr;
  const XPCMethodDescription* method_ = nullptr;
  const XPCInterface* interface_ = nullptr;
  bool ofReply_ = false;
  std::size_t expectedPositions_ = kAnyCount;
};

// nlohmann's reader joins a string sent in chunks by recursing into each chunk, and a chunk may
// itself be chunked: a long run of chunk heads overflows the stack before any callback of ours
// can object. So a walk over the heads alone, with a stack of its own, goes first: it refuses
// every indefinite length (this library never writes one), reserved heads, tags, nesting past the
// limit and lengths past the end, and only then does that reader see the bytes.
std::optional<std::string> headProblem(std::span<const std::uint8_t> bytes,
                                       const FrameLimits& limits) {
  std::array<std::uint64_t, 64> itemsLeft{};  // in each open array or map
  std::size_t depth = 0;
  std::size_t position = 0;
  do {
    if (position == bytes.size()) return "a truncated message";
    const std::uint8_t major = bytes[position] >> 5;
    const std::uint8_t info = bytes[position] & 0x1F;
    ++position;
    if (info == 31) return "an indefinite length";
    if (info > 27) return "a reserved CBOR head";
    if (major == 6) return "a CBOR tag";
    std::uint64_t value = info;
    if (info >= 24) {
      const std::size_t width = std::size_t{1} << (info - 24);
      if (bytes.size() - position < width) return "a truncated message";
      value = 0;
      for (std::size_t index = 0; index < width; ++index) value = (value << 8) | bytes[position++];
    }
    const std::uint64_t left = bytes.size() - position;
    if (major == 2 || major == 3) {
      if (value > left) return "a length past the end of the message";
      position += value;
    } else if (major == 4 || major == 5) {
      // Every item takes at least a byte, so a count past the end cannot be met.
      if (value > left) return "a declared count of " + std::to_string(value) + " is too large";
      if (value > 0) {
        if (depth == limits.maxDepth || depth == itemsLeft.size())
          return "nesting deeper than the limit";
        itemsLeft[depth++] = major == 5 ? 2 * value : value;
        continue;
      }
    }
    // One whole item: count it off the containers it closes.
    while (depth > 0 && --itemsLeft[depth - 1] == 0) --depth;
  } while (depth > 0);
  if (position != bytes.size()) return "bytes after the message";
  return std::nullopt;
}

}  // namespace

bool isValidUTF8(std::string_view text) noexcept {
  const auto* bytes = reinterpret_cast<const unsigned char*>(text.data());
  const std::size_t size = text.size();
  std::size_t i = 0;
  while (i < size) {
    const unsigned char lead = bytes[i];
    if (lead < 0x80) {
      ++i;
      continue;
    }
    std::size_t length = 0;
    std::uint32_t point = 0;
    std::uint32_t minimum = 0;
    if ((lead & 0xE0) == 0xC0) {
      length = 2, point = lead & 0x1F, minimum = 0x80;
    } else if ((lead & 0xF0) == 0xE0) {
      length = 3, point = lead & 0x0F, minimum = 0x800;
    } else if ((lead & 0xF8) == 0xF0) {
      length = 4, point = lead & 0x07, minimum = 0x10000;
    } else {
      return false;
    }
    if (size - i < length) return false;
    for (std::size_t k = 1; k < length; ++k) {
      const unsigned char next = bytes[i + k];
      if ((next & 0xC0) != 0x80) return false;
      point = (point << 6) | (next & 0x3F);
    }
    if (point < minimum || point > 0x10FFFF || (point >= 0xD800 && point <= 0xDFFF)) return false;
    i += length;
  }
  return true;
}

CheckResult checkFrame(std::span<const std::uint8_t> bytes, const FrameContext& context) {
  Checker checker(context);
  if (bytes.empty()) return checker.finish(false);
  if (auto problem = headProblem(bytes, context.limits)) {
    CheckResult result;
    result.verdict = Verdict::malformed;
    result.problem = std::move(*problem);
    return result;
  }
  const bool parsed = nlohmann::json::sax_parse(bytes.begin(), bytes.end(), &checker,
                                                nlohmann::json::input_format_t::cbor, true);
  return checker.finish(parsed);
}

}  // namespace carrow::detail::xpc
