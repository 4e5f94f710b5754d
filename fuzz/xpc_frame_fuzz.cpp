// Feeds arbitrary bytes to the checking pass of received XPC messages, then decodes whatever it
// accepts, as a connection would. The first byte picks which call a reply answers (none, a text
// method, a void method). Any input must be refused by the pass or decode without a fault; the
// sanitizers catch every read outside the message, and a crash or stack overflow is a finding.
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include <carrow/xpc/xpc_protocol.h>

#include "xpc/frame.h"

namespace {

using namespace carrow;

struct Label {
  static constexpr std::string_view xpcClassName = "Label";
  std::string text;
};
void from_json(const nlohmann::json& json, Label& label) {
  label.text = json.get<std::string>();
}

struct Echo : XPCMethod<"echo:", std::string(std::string)> {};
struct Store
    : XPCMethod<"store:at:", void(std::variant<Label, std::int64_t>, std::vector<double>)> {};
struct Protocol : XPCProtocol<"FuzzProtocol", Echo, Store> {};

const XPCInterface& interface() {
  static const XPCInterface made = [] {
    auto made = XPCInterface::withProtocol<Protocol>();
    made.setClasses({"Label"}, "store:at:", 0, false);
    return made;
  }();
  return made;
}

template <class T>
void decodeAs(const XPCValue& value) {
  try {
    (void)XPCCoding<T>::decode(value.className, value.value);
  } catch (const nlohmann::json::exception&) {
    // A value of the wrong shape for its class: refused, as the service would.
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  std::optional<std::string> pending;
  if (data[0] % 3 == 1) pending = "echo:";
  if (data[0] % 3 == 2) pending = "store:at:";
  const std::span<const std::uint8_t> bytes(data + 1, size - 1);

  detail::xpc::FrameContext context;
  context.exported = &interface();
  context.remote = &interface();
  context.pendingSelector = [&pending](std::uint64_t) { return pending; };
  const auto checked = detail::xpc::checkFrame(bytes, context);
  if (checked.verdict != detail::xpc::CheckResult::Verdict::ok) return 0;

  const detail::xpc::Frame frame = detail::xpc::decodeFrame(bytes);
  if (frame.kind == detail::xpc::FrameKind::call && frame.text == "echo:") {
    decodeAs<std::string>(frame.values.at(0));
  } else if (frame.kind == detail::xpc::FrameKind::call) {
    decodeAs<std::variant<Label, std::int64_t>>(frame.values.at(0));
    decodeAs<std::vector<double>>(frame.values.at(1));
  } else if (frame.kind == detail::xpc::FrameKind::reply && pending == "echo:") {
    decodeAs<std::string>(frame.values.at(0));
  }
  return 0;
}
