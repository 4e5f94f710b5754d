#include <carrow/attributes/uuid.h>

namespace carrow {

namespace {

constexpr std::size_t kGroupEnds[] = {4, 6, 8, 10, 16};  // byte index after each text group

int hexDigit(char c) noexcept {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

}  // namespace

std::string UUID::uuidString() const {
  static constexpr char kDigits[] = "0123456789ABCDEF";
  std::string text;
  text.reserve(36);
  std::size_t group = 0;
  for (std::size_t i = 0; i < bytes_.size(); ++i) {
    if (i == kGroupEnds[group]) {
      text.push_back('-');
      ++group;
    }
    text.push_back(kDigits[bytes_[i] >> 4]);
    text.push_back(kDigits[bytes_[i] & 0xF]);
  }
  return text;
}

std::optional<UUID> UUID::fromString(std::string_view text) noexcept {
  if (text.size() != 36) return std::nullopt;
  Bytes bytes{};
  std::size_t at = 0, group = 0;
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    if (i == kGroupEnds[group]) {
      if (text[at++] != '-') return std::nullopt;
      ++group;
    }
    const int high = hexDigit(text[at++]), low = hexDigit(text[at++]);
    if (high < 0 || low < 0) return std::nullopt;
    bytes[i] = std::uint8_t(high << 4 | low);
  }
  return UUID(bytes);
}

}  // namespace carrow
