#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <string_view>
#include <vector>

namespace carrow::testing {

/// Lays out a reply buffer byte by byte, as the kernel would, for golden-reply tests: each
/// write appends at the end.
class ReplyBuilder {
 public:
  ReplyBuilder& u32(std::uint32_t value) { return raw(&value, 4); }
  ReplyBuilder& i32(std::int32_t value) { return raw(&value, 4); }
  ReplyBuilder& i64(std::int64_t value) { return raw(&value, 8); }
  ReplyBuilder& bytes(std::initializer_list<std::uint8_t> values) {
    for (auto value : values) bytes_.push_back(std::byte(value));
    return *this;
  }
  ReplyBuilder& zeros(std::size_t count) {
    bytes_.resize(bytes_.size() + count);
    return *this;
  }
  /// The length word and the returned-attributes set; the length is patched by `finish`.
  ReplyBuilder& header(std::uint32_t common, std::uint32_t volume = 0, std::uint32_t dir = 0,
                       std::uint32_t file = 0, std::uint32_t fork = 0) {
    return u32(0).u32(common).u32(volume).u32(dir).u32(file).u32(fork);
  }
  /// An attribute reference at the current offset, pointing `offset` bytes ahead of itself.
  ReplyBuilder& reference(std::int32_t offset, std::uint32_t length) {
    return i32(offset).u32(length);
  }
  /// Text with its zero byte, padded with zeros to a multiple of 4.
  ReplyBuilder& text(std::string_view value) {
    raw(value.data(), value.size());
    bytes_.push_back(std::byte(0));
    while (bytes_.size() % 4 != 0) bytes_.push_back(std::byte(0));
    return *this;
  }

  /// The reply with its length word set to its size (or to `lengthWord`), inside a buffer of
  /// `bufferSize` bytes (at least the reply).
  std::vector<std::byte> finish(std::size_t bufferSize = 0, std::int64_t lengthWord = -1) {
    auto reply = bytes_;
    const auto length = lengthWord < 0 ? std::uint32_t(reply.size()) : std::uint32_t(lengthWord);
    std::memcpy(reply.data(), &length, 4);
    if (bufferSize > reply.size()) reply.resize(bufferSize);
    return reply;
  }

 private:
  ReplyBuilder& raw(const void* data, std::size_t size) {
    const auto* start = static_cast<const std::byte*>(data);
    bytes_.insert(bytes_.end(), start, start + size);
    return *this;
  }

  std::vector<std::byte> bytes_;
};

}  // namespace carrow::testing
