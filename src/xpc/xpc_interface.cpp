#include <stdexcept>
#include <utility>

#include <carrow/xpc/xpc_interface.h>

namespace carrow {

namespace {

constexpr std::uint64_t kFNVOffset = 14695981039346656037ull;
constexpr std::uint64_t kFNVPrime = 1099511628211ull;

void mix(std::uint64_t& hash, std::string_view text) {
  for (unsigned char byte : text) {
    hash ^= byte;
    hash *= kFNVPrime;
  }
  hash ^= 0xff;  // a separator no text contains
  hash *= kFNVPrime;
}

void mixPositions(std::uint64_t& hash, const std::vector<std::vector<std::string>>& positions) {
  for (const auto& classes : positions) {
    for (const auto& name : classes) mix(hash, name);
    mix(hash, "|");
  }
}

}  // namespace

const XPCMethodDescription* XPCProtocolDescription::method(
    std::string_view selector) const noexcept {
  for (const auto& candidate : methods) {
    if (candidate.selector == selector) return &candidate;
  }
  return nullptr;
}

namespace detail {

std::uint64_t protocolDigest(const XPCProtocolDescription& description) {
  std::uint64_t hash = kFNVOffset;
  mix(hash, description.name);
  for (const auto& method : description.methods) {
    mix(hash, method.selector);
    mixPositions(hash, method.argumentClasses);
    mix(hash, "->");
    mixPositions(hash, method.replyClasses);
  }
  return hash;
}

}  // namespace detail

XPCInterface::XPCInterface(const XPCProtocolDescription& protocol) : protocol_(&protocol) {
  for (const auto& method : protocol.methods) {
    for (std::size_t index = 0; index < method.argumentClasses.size(); ++index) {
      const auto& classes = method.argumentClasses[index];
      allowed_[{method.selector, static_cast<std::int64_t>(index), false}] =
          std::set<std::string>(classes.begin(), classes.end());
    }
    for (std::size_t index = 0; index < method.replyClasses.size(); ++index) {
      const auto& classes = method.replyClasses[index];
      allowed_[{method.selector, static_cast<std::int64_t>(index), true}] =
          std::set<std::string>(classes.begin(), classes.end());
    }
  }
}

void XPCInterface::setClasses(std::set<std::string> classes, std::string_view selector,
                              std::int64_t argumentIndex, bool ofReply) {
  auto found = allowed_.find(Position{std::string(selector), argumentIndex, ofReply});
  if (found == allowed_.end()) {
    throw std::invalid_argument("protocol " + protocol_->name + " has no "
                                + (ofReply ? "reply " : "") + "argument "
                                + std::to_string(argumentIndex) + " of " + std::string(selector));
  }
  found->second = std::move(classes);
}

const std::set<std::string>* XPCInterface::classes(std::string_view selector,
                                                   std::int64_t argumentIndex, bool ofReply) const {
  auto found = allowed_.find(Position{std::string(selector), argumentIndex, ofReply});
  return found == allowed_.end() ? nullptr : &found->second;
}

}  // namespace carrow
