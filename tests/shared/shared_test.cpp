#include <filesystem>
#include <sstream>
#include <thread>
#include <unordered_set>
#include <vector>

#include <gtest/gtest.h>

#include <carrow/shared/bundles.h>
#include <carrow/shared/item_type.h>

namespace carrow {
namespace {

TEST(ItemType, RawValuesRoundTripAndNamesPrint) {
  for (std::int64_t raw = 0; raw <= 5; ++raw) {
    auto type = itemType(raw);
    ASSERT_TRUE(type);
    EXPECT_EQ(rawValue(*type), raw);
  }
  EXPECT_FALSE(itemType(6));
  EXPECT_FALSE(itemType(-1));
  EXPECT_FALSE(itemType(INT64_MIN));
  EXPECT_EQ(itemType(4), ItemType::symlink);
  EXPECT_EQ(name(ItemType::symlink), "symlink");
  EXPECT_EQ(name(ItemType::alias), "alias");
  std::ostringstream out;
  out << ItemType::directory;
  EXPECT_EQ(out.str(), "directory");
}

TEST(ItemType, HashesByCase) {
  std::unordered_set<ItemType> types{ItemType::file, ItemType::file, ItemType::unknown};
  EXPECT_EQ(types.size(), 2u);
  std::unordered_set<UIComponent> components{UIComponent::settings, UIComponent::menuExtra,
                                             UIComponent::widget, UIComponent::widget};
  EXPECT_EQ(components.size(), 3u);
}

TEST(Bundles, LibraryBundleIsTheDirectoryHoldingTheLibraryAndIsMadeOnce) {
  const auto& bundle = libraryBundle();
  ASSERT_TRUE(bundle);
  EXPECT_TRUE(std::filesystem::is_directory(bundle->bundlePath()));
  bool holdsLibrary = false;
  for (const auto& entry : std::filesystem::directory_iterator(bundle->bundlePath())) {
    auto name = entry.path().filename().string();
    holdsLibrary |= name.starts_with("libCarrowPrivate") || name.starts_with("shared_tests");
  }
  EXPECT_TRUE(holdsLibrary) << bundle->bundlePath();
  EXPECT_EQ(libraryBundle().get(), bundle.get());
}

TEST(Bundles, SettingsExtensionIsLookedUpOnceFromManyThreads) {
  std::vector<const platform::Bundle*> seen(8);
  std::vector<std::thread> threads;
  for (std::size_t i = 0; i < seen.size(); ++i) {
    threads.emplace_back([&, i] { seen[i] = settingsExtensionBundle().get(); });
  }
  for (auto& thread : threads) thread.join();
  for (auto* each : seen) EXPECT_EQ(each, seen.front());
  EXPECT_EQ(seen.front() != nullptr, std::filesystem::is_directory(kSettingsExtensionPath));
}

TEST(Bundles, AtPathAnswersNothingWhereNoDirectoryIs) {
  EXPECT_FALSE(platform::Bundle::atPath("/nonexistent/CarrowSettings.appex"));
  auto tmp = platform::Bundle::atPath(std::filesystem::temp_directory_path());
  ASSERT_TRUE(tmp);
  EXPECT_EQ(tmp->bundlePath(), std::filesystem::temp_directory_path());
}

}  // namespace
}  // namespace carrow
