#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace carrow::platform::testing {

// A fresh directory under the system's temporary directory, removed with everything in it.
class TempTree {
 public:
  TempTree() {
    std::string pattern = (std::filesystem::temp_directory_path() / "carrow-attr-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
    root_ = pattern;
  }
  ~TempTree() {
    std::error_code ignored;
    std::filesystem::permissions(root_, std::filesystem::perms::owner_all,
                                 std::filesystem::perm_options::add, ignored);
    std::filesystem::remove_all(root_, ignored);
  }
  TempTree(const TempTree&) = delete;
  TempTree& operator=(const TempTree&) = delete;

  const std::filesystem::path& root() const { return root_; }

  std::string file(const std::string& name, const std::string& contents = "") const {
    auto path = root_ / name;
    std::ofstream(path, std::ios::binary) << contents;
    return path.string();
  }
  std::string directory(const std::string& name) const {
    auto path = root_ / name;
    std::filesystem::create_directories(path);
    return path.string();
  }

 private:
  std::filesystem::path root_;
};

}  // namespace carrow::platform::testing
