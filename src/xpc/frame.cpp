#include "frame.h"

#include <stdexcept>
#include <string_view>
#include <utility>

namespace carrow::detail::xpc {

namespace {

using json = nlohmann::json;

std::vector<std::uint8_t> encode(const json& message) {
  return json::to_cbor(message);
}

// Calls and replies, the messages of every call, are written and read here directly rather than
// through a json tree of the whole message: only their values go through nlohmann, each on its
// own. The bytes are the same as `json::to_cbor` writes for the tree (shortest heads, definite
// lengths).

enum Major : std::uint8_t { kUnsigned = 0, kText = 3, kArray = 4 };

void writeHead(std::vector<std::uint8_t>& out, Major major, std::uint64_t value) {
  const auto type = static_cast<std::uint8_t>(major << 5);
  if (value < 24) {
    out.push_back(static_cast<std::uint8_t>(type | value));
    return;
  }
  int bytes = 8;
  std::uint8_t code = 27;
  if (value <= 0xFF) {
    bytes = 1;
    code = 24;
  } else if (value <= 0xFFFF) {
    bytes = 2;
    code = 25;
  } else if (value <= 0xFFFFFFFF) {
    bytes = 4;
    code = 26;
  }
  out.push_back(static_cast<std::uint8_t>(type | code));
  for (int shift = (bytes - 1) * 8; shift >= 0; shift -= 8) {
    out.push_back(static_cast<std::uint8_t>(value >> shift));
  }
}

void writeText(std::vector<std::uint8_t>& out, std::string_view text) {
  writeHead(out, kText, text.size());
  out.insert(out.end(), text.begin(), text.end());
}

void writePositions(std::vector<std::uint8_t>& out, std::vector<WireValue>& values) {
  writeHead(out, kArray, values.size());
  for (auto& value : values) {
    writeHead(out, kArray, 2);
    writeText(out, value.className);
    json::to_cbor(value.value, out);
  }
}

// Reads what the checking pass has accepted, so its shape and bounds are known good; a surprise
// still throws rather than reading past the end.
class Reader {
 public:
  explicit Reader(std::span<const std::uint8_t> bytes) : bytes_(bytes) {}

  std::uint64_t head(std::uint8_t& major) {
    const std::uint8_t first = byte();
    major = first >> 5;
    const std::uint8_t info = first & 0x1F;
    if (info < 24) return info;
    if (info > 27) throw std::invalid_argument("an indefinite or reserved CBOR length");
    const int bytes = 1 << (info - 24);
    std::uint64_t value = 0;
    for (int index = 0; index < bytes; ++index) value = (value << 8) | byte();
    return value;
  }

  std::uint64_t expect(std::uint8_t major) {
    std::uint8_t seen = 0;
    const std::uint64_t value = head(seen);
    if (seen != major) throw std::invalid_argument("an unexpected CBOR item");
    return value;
  }

  std::string text() {
    const std::uint64_t length = expect(kText);
    need(length);
    std::string result(reinterpret_cast<const char*>(bytes_.data() + position_), length);
    position_ += length;
    return result;
  }

  // One whole item, whatever it holds (the pass bounded its depth).
  void skip() {
    std::uint8_t major = 0;
    const std::uint64_t value = head(major);
    switch (major) {
      case 2:
      case 3:
        need(value);
        position_ += value;
        break;
      case 4:
        for (std::uint64_t index = 0; index < value; ++index) skip();
        break;
      case 5:
        for (std::uint64_t index = 0; index < 2 * value; ++index) skip();
        break;
      case 6:
        throw std::invalid_argument("a CBOR tag");
      default:
        break;  // numbers and simple values: the head was all of it
    }
  }

  json value() {
    const std::size_t start = position_;
    skip();
    return json::from_cbor(bytes_.begin() + static_cast<std::ptrdiff_t>(start),
                           bytes_.begin() + static_cast<std::ptrdiff_t>(position_), true, true,
                           json::cbor_tag_handler_t::error);
  }

  std::vector<WireValue> positions() {
    const std::uint64_t count = expect(kArray);
    std::vector<WireValue> values;
    values.reserve(count);
    for (std::uint64_t index = 0; index < count; ++index) {
      if (expect(kArray) != 2) throw std::invalid_argument("a position is not a pair");
      std::string className = text();
      values.push_back(WireValue{std::move(className), value()});
    }
    return values;
  }

  bool atEnd() const noexcept { return position_ == bytes_.size(); }

 private:
  std::uint8_t byte() {
    need(1);
    return bytes_[position_++];
  }
  void need(std::uint64_t count) const {
    if (count > bytes_.size() - position_) throw std::invalid_argument("a truncated CBOR item");
  }

  std::span<const std::uint8_t> bytes_;
  std::size_t position_ = 0;
};

std::vector<WireValue> readPositions(json& array) {
  std::vector<WireValue> values;
  values.reserve(array.size());
  for (auto& pair : array) {
    values.push_back(WireValue{pair[0].get<std::string>(), std::move(pair[1])});
  }
  return values;
}

}  // namespace

std::vector<std::uint8_t> encodeHello(const XPCProtocolDescription& protocol) {
  return encode(json::array({static_cast<int>(FrameKind::hello), protocol.name, protocol.digest}));
}

std::vector<std::uint8_t> encodeReject(RejectReason reason) {
  return encode(json::array({static_cast<int>(FrameKind::reject), static_cast<int>(reason)}));
}

std::vector<std::uint8_t> encodeCall(std::uint64_t id, std::string_view selector,
                                     std::vector<WireValue> arguments) {
  std::vector<std::uint8_t> out;
  out.reserve(32 + selector.size() + 16 * arguments.size());
  writeHead(out, kArray, 4);
  writeHead(out, kUnsigned, static_cast<std::uint64_t>(FrameKind::call));
  writeHead(out, kUnsigned, id);
  writeText(out, selector);
  writePositions(out, arguments);
  return out;
}

std::vector<std::uint8_t> encodeReply(std::uint64_t id, std::vector<WireValue> values) {
  std::vector<std::uint8_t> out;
  out.reserve(32 + 16 * values.size());
  writeHead(out, kArray, 3);
  writeHead(out, kUnsigned, static_cast<std::uint64_t>(FrameKind::reply));
  writeHead(out, kUnsigned, id);
  writePositions(out, values);
  return out;
}

std::vector<std::uint8_t> encodeError(std::uint64_t id, std::string_view domain,
                                      std::int64_t code) {
  return encode(json::array({static_cast<int>(FrameKind::error), id, std::string(domain), code}));
}

std::vector<std::uint8_t> encodeCancel(std::uint64_t id) {
  return encode(json::array({static_cast<int>(FrameKind::cancel), id}));
}

Frame decodeFrame(std::span<const std::uint8_t> bytes) {
  // Only called once the checking pass accepted the bytes: bounded depth, valid text, the
  // right shape for the kind.
  const std::uint8_t first = bytes.empty() ? 0 : bytes[0];
  const std::uint8_t kind = bytes.size() < 2 ? 0xFF : bytes[1];
  if ((first == 0x84 && kind == static_cast<std::uint8_t>(FrameKind::call))
      || (first == 0x83 && kind == static_cast<std::uint8_t>(FrameKind::reply))) {
    Reader reader(bytes.subspan(2));
    Frame frame;
    frame.kind = static_cast<FrameKind>(kind);
    frame.id = reader.expect(kUnsigned);
    if (frame.kind == FrameKind::call) frame.text = reader.text();
    frame.values = reader.positions();
    if (!reader.atEnd()) throw std::invalid_argument("bytes after the message");
    return frame;
  }
  json message =
      json::from_cbor(bytes.begin(), bytes.end(), true, true, json::cbor_tag_handler_t::error);
  Frame frame;
  frame.kind = static_cast<FrameKind>(message[0].get<std::uint8_t>());
  switch (frame.kind) {
    case FrameKind::hello:
      frame.text = message[1].get<std::string>();
      frame.digest = message[2].get<std::uint64_t>();
      break;
    case FrameKind::reject:
      frame.number = message[1].get<std::int64_t>();
      break;
    case FrameKind::call:
      frame.id = message[1].get<std::uint64_t>();
      frame.text = message[2].get<std::string>();
      frame.values = readPositions(message[3]);
      break;
    case FrameKind::reply:
      frame.id = message[1].get<std::uint64_t>();
      frame.values = readPositions(message[2]);
      break;
    case FrameKind::error:
      frame.id = message[1].get<std::uint64_t>();
      frame.text = message[2].get<std::string>();
      frame.number = message[3].get<std::int64_t>();
      break;
    case FrameKind::cancel:
      frame.id = message[1].get<std::uint64_t>();
      break;
  }
  return frame;
}

}  // namespace carrow::detail::xpc
