#pragma once

#include <filesystem>
#include <memory>

namespace carrow::platform {

/// A Linux stand-in for the platform's bundle: a directory that holds a component's code and
/// resources. A macOS build maps `forAddress` to `bundleForClass:` and `atPath` to `initWithPath:`.
class Bundle {
 public:
  explicit Bundle(std::filesystem::path path) : path_(std::move(path)) {}

  /// The bundle's directory.
  const std::filesystem::path& bundlePath() const noexcept { return path_; }

  /// The bundle of the loaded image (shared library or executable) that contains `address`: the
  /// directory of that image. Nothing when the address lies in no loaded image.
  static std::shared_ptr<const Bundle> forAddress(const void* address);

  /// The bundle at `path`, or nothing when no directory is there.
  static std::shared_ptr<const Bundle> atPath(const std::filesystem::path& path);

 private:
  std::filesystem::path path_;
};

}  // namespace carrow::platform
