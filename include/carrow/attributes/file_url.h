#pragma once

#include <compare>
#include <ostream>
#include <string>
#include <string_view>
#include <utility>

namespace carrow {

/// A file URL: an absolute or relative file-system path, with the hint that it names a directory.
/// The hint is kept as a trailing "/" (as the platform's directory URLs carry one), so the
/// URL of "/Volumes/Backup" made as a directory reads "/Volumes/Backup/". Kernel calls take
/// `path()` as it stands; a trailing separator on a directory path names the same directory.
class FileURL {
 public:
  /// The URL of `path`; with `isDirectory` a trailing "/" is added when missing.
  static FileURL fileURLWithPath(std::string path, bool isDirectory = false) {
    if (isDirectory && (path.empty() || path.back() != '/')) path.push_back('/');
    return FileURL(std::move(path));
  }

  FileURL() = default;
  explicit FileURL(std::string path) : path_(std::move(path)) {}

  const std::string& path() const noexcept { return path_; }
  /// True when the path ends in "/" (made as a directory, or the root).
  bool hasDirectoryPath() const noexcept { return !path_.empty() && path_.back() == '/'; }
  /// "file://" followed by the path (percent-encoding is left out: this text is for reading).
  std::string absoluteString() const { return "file://" + path_; }

  friend bool operator==(const FileURL&, const FileURL&) = default;
  friend auto operator<=>(const FileURL&, const FileURL&) = default;

 private:
  std::string path_;
};

inline std::ostream& operator<<(std::ostream& out, const FileURL& url) {
  return out << url.absoluteString();
}

}  // namespace carrow
