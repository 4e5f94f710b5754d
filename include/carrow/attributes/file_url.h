#pragma once

#include <compare>
#include <ostream>
#include <string>
#include <utility>

namespace carrow {

/// A file URL: a file-system path and whether it names a directory. It is the value that the
/// URL forms of attribute reads take and that volume descriptions hold as their mount point.
///
/// As the platform's file URLs do, it keeps the path without trailing separators ("/" stays "/")
/// and shows the directory hint as a trailing "/" in its text form only:
///
///     auto url = FileURL::fileURLWithPath("/System/Volumes/Data/", true);
///     url.path();            // "/System/Volumes/Data"
///     url.absoluteString();  // "file:///System/Volumes/Data/"
///
/// Values are immutable and may be shared between threads.
class FileURL {
 public:
  /// The URL of `path`. A path that ends in "/" names a directory whatever `isDirectory` says.
  static FileURL fileURLWithPath(std::string path, bool isDirectory = false) {
    bool directory = isDirectory;
    while (path.size() > 1 && path.back() == '/') {
      path.pop_back();
      directory = true;
    }
    if (path == "/") directory = true;
    return FileURL(std::move(path), directory);
  }

  FileURL() = default;
  /// Same as `fileURLWithPath(path)`.
  explicit FileURL(std::string path) : FileURL(fileURLWithPath(std::move(path))) {}

  /// The path, without trailing separators.
  const std::string& path() const noexcept { return path_; }
  bool hasDirectoryPath() const noexcept { return isDirectory_; }
  /// The URL's text: "file://" followed by the path, with "/" after a directory's path. Every
  /// byte of the path that a URL path cannot hold as it is (a blank, "%", "#", "?", any byte
  /// outside ASCII, ...) is percent-encoded, so "/tmp/a b#1" reads "file:///tmp/a%20b%231".
  std::string absoluteString() const;

  friend bool operator==(const FileURL&, const FileURL&) = default;
  friend auto operator<=>(const FileURL&, const FileURL&) = default;

 private:
  FileURL(std::string path, bool isDirectory) : path_(std::move(path)), isDirectory_(isDirectory) {}

  std::string path_;
  bool isDirectory_ = false;
};

inline std::ostream& operator<<(std::ostream& out, const FileURL& url) {
  return out << url.absoluteString();
}

}  // namespace carrow
