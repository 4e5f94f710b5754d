#pragma once

#include <memory>

#include <carrow/platform/bundle.h>

namespace carrow {

/// The path of the settings extension's bundle.
inline constexpr const char* kSettingsExtensionPath =
    "/System/Library/ExtensionKit/Extensions/CarrowSettings.appex";

/// The bundle that contains this library (on Linux: the directory of the loaded shared library).
/// Looked up once, on first use, thread-safely; every call returns the same object.
const std::shared_ptr<const platform::Bundle>& libraryBundle();

/// The settings extension's bundle, or null when nothing is installed at its fixed path. Looked
/// up once: the outcome, null included, stays for the life of the process.
const std::shared_ptr<const platform::Bundle>& settingsExtensionBundle();

}  // namespace carrow
