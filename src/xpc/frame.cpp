#include "frame.h"

#include <utility>

namespace carrow::detail::xpc {

namespace {

using json = nlohmann::json;

std::vector<std::uint8_t> encode(const json& message) {
  return json::to_cbor(message);
}

json positions(std::vector<WireValue> values) {
  json array = json::array();
  for (auto& value : values) {
    array.push_back(json::array({std::move(value.className), std::move(value.value)}));
  }
  return array;
}

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
  return encode(json::array({static_cast<int>(FrameKind::call), id, std::string(selector),
                             positions(std::move(arguments))}));
}

std::vector<std::uint8_t> encodeReply(std::uint64_t id, std::vector<WireValue> values) {
  return encode(
      json::array({static_cast<int>(FrameKind::reply), id, positions(std::move(values))}));
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
