#include <dlfcn.h>
#include <system_error>

#include <carrow/platform/bundle.h>

namespace carrow::platform {

std::shared_ptr<const Bundle> Bundle::forAddress(const void* address) {
  Dl_info info{};
  if (dladdr(address, &info) == 0 || info.dli_fname == nullptr) return nullptr;
  std::error_code error;
  auto image = std::filesystem::canonical(info.dli_fname, error);
  if (error) return nullptr;
  return std::make_shared<const Bundle>(image.parent_path());
}

std::shared_ptr<const Bundle> Bundle::atPath(const std::filesystem::path& path) {
  std::error_code error;
  if (!std::filesystem::is_directory(path, error)) return nullptr;
  return std::make_shared<const Bundle>(path);
}

}  // namespace carrow::platform
