#include <carrow/shared/bundles.h>

namespace carrow {
namespace {
// A marker that lives in this library's image, so that its address names the library's bundle.
const char kLibraryMarker = 0;
}  // namespace

const std::shared_ptr<const platform::Bundle>& libraryBundle() {
  static const auto bundle = platform::Bundle::forAddress(&kLibraryMarker);
  return bundle;
}

const std::shared_ptr<const platform::Bundle>& settingsExtensionBundle() {
  static const auto bundle = platform::Bundle::atPath(kSettingsExtensionPath);
  return bundle;
}

}  // namespace carrow
