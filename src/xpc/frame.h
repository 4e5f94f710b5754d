#pragma once

// The messages of an XPC connection. Each is one CBOR array:
//
//   hello   [0, protocol name, protocol digest]      client -> service, first message
//   reject  [1, reason]                              service -> client, then the service closes
//   call    [2, id, selector, [[class, value]...]]   id 0: nobody waits for a reply
//   reply   [3, id, [[class, value]...]]             no value for a void reply
//   error   [4, id, domain, code]
//   cancel  [5, id]
//
// Nothing received is decoded before `checkFrame` has accepted it.

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include <carrow/xpc/xpc_interface.h>

namespace carrow::detail::xpc {

enum class FrameKind : std::uint8_t {
  hello = 0,
  reject = 1,
  call = 2,
  reply = 3,
  error = 4,
  cancel = 5
};

/// Why a service refused a client at the handshake.
enum class RejectReason : std::uint8_t { interfaceMismatch = 1, notExported = 2 };

/// The bounds the checking pass enforces on every received message.
struct FrameLimits {
  std::size_t maxDepth = 32;
  std::size_t maxContainerCount = 65536;
  std::size_t maxTotalElements = 262144;
  std::size_t maxStringBytes = std::size_t{1} << 20;
};

/// What the receiver knows when it checks a message.
struct FrameContext {
  /// The interface calls are checked against; null when nothing is exported.
  const XPCInterface* exported = nullptr;
  /// The interface replies are checked against.
  const XPCInterface* remote = nullptr;
  /// The selector of the pending call `id`; std::nullopt when none is pending (a late reply).
  std::function<std::optional<std::string>(std::uint64_t)> pendingSelector;
  FrameLimits limits{};
};

/// A position whose class the allow-list refused.
struct ClassViolation {
  std::string selector;
  std::int64_t argumentIndex = 0;
  bool ofReply = false;
  std::string className;
};

struct CheckResult {
  enum class Verdict : std::uint8_t {
    ok,          // decode it
    malformed,   // wrong shape, size, encoding or interface: the connection ends
    disallowed,  // well formed, but a class is refused: drop it, keep the connection
  };
  Verdict verdict = Verdict::malformed;
  std::string problem;
  FrameKind kind = FrameKind::hello;
  std::uint64_t id = 0;
  /// For a call: its selector; for a reply: its pending call's selector (empty when late).
  std::string selector;
  std::optional<ClassViolation> violation;
};

/// The checking pass: a walk over the CBOR heads (no indefinite lengths or tags, depth and lengths
/// within bounds), then one SAX walk over `bytes` that enforces the limits (depth, counts, sizes),
/// valid UTF-8 in every text, the shape of each kind of message, and the classes of every
/// argument or reply value against the allow-lists. Builds nothing and decodes no value.
CheckResult checkFrame(std::span<const std::uint8_t> bytes, const FrameContext& context);

/// True when `text` is well-formed UTF-8 (no overlong forms, surrogates or values past U+10FFFF).
bool isValidUTF8(std::string_view text) noexcept;

using WireValue = XPCValue;

/// A decoded message (after the checking pass accepted it).
struct Frame {
  FrameKind kind = FrameKind::hello;
  std::uint64_t id = 0;
  std::string text;          // hello: protocol name; call: selector; error: domain
  std::int64_t number = 0;   // reject: reason; error: code
  std::uint64_t digest = 0;  // hello
  std::vector<WireValue> values;
};

/// Decodes a message that `checkFrame` accepted.
Frame decodeFrame(std::span<const std::uint8_t> bytes);

std::vector<std::uint8_t> encodeHello(const XPCProtocolDescription& protocol);
std::vector<std::uint8_t> encodeReject(RejectReason reason);
std::vector<std::uint8_t> encodeCall(std::uint64_t id, std::string_view selector,
                                     std::vector<WireValue> arguments);
std::vector<std::uint8_t> encodeReply(std::uint64_t id, std::vector<WireValue> values);
std::vector<std::uint8_t> encodeError(std::uint64_t id, std::string_view domain, std::int64_t code);
std::vector<std::uint8_t> encodeCancel(std::uint64_t id);

}  // namespace carrow::detail::xpc
