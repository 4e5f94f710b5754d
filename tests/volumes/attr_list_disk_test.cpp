#include <atomic>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <carrow/volumes/attr_list_disk.h>

#include "../logging/recording_logger.h"

namespace carrow {
namespace {

using Key = AttrList::Key;
using Traits = CRAttrListDiskTraits;

constexpr std::uint32_t kRdOnly = 0x1, kLocal = 0x1000, kRootFS = 0x4000, kDontBrowse = 0x100000,
                        kJournaled = 0x800000, kSnapshot = 0x40000000;
constexpr std::uint32_t kFmtJournal = 0x8, kFmtJournalActive = 0x10, kFmtCaseSensitive = 0x100,
                        kFmtVolGroups = 0x1000000;

UUID uuidOf(std::string_view text) {
  return *UUID::fromString(text);
}

// The required attributes of a volume, plus what a test adds.
AttrList::Attributes volume(std::string type = "apfs", std::uint32_t flags = kLocal,
                            std::uint32_t format = 0, std::string device = "/dev/disk3s1") {
  AttrList::Attributes attributes;
  attributes.emplace(Key::mountPoint, std::string("/Volumes/Backup"));
  attributes.emplace(Key::mountedDeviceName, std::move(device));
  attributes.emplace(Key::fsID, FSID{{16777232, 26}});
  attributes.emplace(Key::filesystemTypeName, std::move(type));
  attributes.emplace(Key::mountFlags, flags);
  attributes.emplace(Key::volumeCapabilities, VolCapabilities{{format, 0, 0, 0}, {~0u, 0, 0, 0}});
  return attributes;
}

// An environment that counts how often each value is asked for.
struct FakeEnvironment {
  std::optional<std::string> dataUUID;
  std::optional<std::string> rootName = "Macintosh HD";
  std::atomic<int> uuidReads{0}, nameReads{0};
  AttrListDisk::Environment environment() {
    return {[this] {
              ++uuidReads;
              return dataUUID;
            },
            [this] {
              ++nameReads;
              if (!rootName) throw std::system_error(ENOENT, std::generic_category());
              return *rootName;
            }};
  }
};

class AttrListDiskTest : public ::testing::Test {
 protected:
  void SetUp() override { CRLog::setLogger(logger); }
  AttrListDisk describe(const AttrList::Attributes& attributes, bool knownData = false) {
    return AttrListDisk::fromAttributes(attributes, knownData, fake.environment());
  }

  std::shared_ptr<testing::RecordingLogger> logger = std::make_shared<testing::RecordingLogger>();
  FakeEnvironment fake;
};

TEST_F(AttrListDiskTest, ReadOnlyLocalAPFSVolume) {
  const auto disk = describe(volume("apfs", kLocal | kRdOnly, kFmtJournal | kFmtCaseSensitive));
  EXPECT_EQ(disk.traits(), Traits::apfs | Traits::local | Traits::browsable | Traits::readOnly
                               | Traits::journalingSupported | Traits::caseSensitive);
  EXPECT_EQ(disk.filesystemTypeName(), "apfs");
  EXPECT_EQ(disk.mountPoint().path(), "/Volumes/Backup");
  EXPECT_TRUE(disk.mountPoint().hasDirectoryPath());
  EXPECT_EQ(disk.fsid(), (FSID{{16777232, 26}}));
  EXPECT_EQ(disk.devicePath(), "/dev/disk3s1");
  EXPECT_EQ(disk.deviceName(), "disk3s1");
  EXPECT_FALSE(disk.snapshotName());
  EXPECT_FALSE(disk.name());
  EXPECT_FALSE(disk.uuid());
  EXPECT_FALSE(disk.capacity());
  EXPECT_TRUE(logger->records().empty());
}

TEST_F(AttrListDiskTest, MountFlagsAndCapabilitiesMapToTraits) {
  EXPECT_EQ(describe(volume("hfs", kRootFS | kDontBrowse | kJournaled)).traits(),
            Traits::hfs | Traits::rootFileSystem | Traits::journaled | Traits::journalingSupported);
  EXPECT_EQ(describe(volume("ext4", kLocal, kFmtJournalActive | kFmtVolGroups)).traits(),
            Traits::local | Traits::browsable | Traits::journaled | Traits::volumeGroups);
  EXPECT_EQ(describe(volume("smbfs", 0x200000 | 0x80)).traits(), Traits::smbfs | Traits::browsable
                                                                     | Traits::ignoresOwnership
                                                                     | Traits::contentProtection);
}

TEST_F(AttrListDiskTest, TypeNamesMatchExactly) {
  EXPECT_FALSE(describe(volume("APFS")).traits().contains(Traits::apfs));
  EXPECT_FALSE(describe(volume("apfs ")).traits().contains(Traits::apfs));
  for (auto [name, trait] : {std::pair{"exfat", Traits::exfat},
                             {"msdos", Traits::msdos},
                             {"ntfs", Traits::ntfs},
                             {"afpfs", Traits::afpfs},
                             {"afcs", Traits::afcs}}) {
    EXPECT_EQ(describe(volume(name, 0)).traits(), trait | Traits::browsable) << name;
  }
}

TEST_F(AttrListDiskTest, SnapshotDeviceSplitsAtTheAtSign) {
  const auto disk = describe(volume("apfs", kSnapshot | kLocal, 0, "snap1@/dev/disk3s1"));
  EXPECT_EQ(disk.snapshotName(), "snap1");
  EXPECT_EQ(disk.liveDiskDevicePath(), "/dev/disk3s1");
  EXPECT_EQ(disk.devicePath(), "snap1@/dev/disk3s1");
  EXPECT_EQ(disk.deviceName(), "snap1@disk3s1");
  for (const char* device : {"/dev/disk3s1", "a@b@/dev/disk3s1"}) {
    const auto other = describe(volume("apfs", kSnapshot, 0, device));
    EXPECT_FALSE(other.snapshotName()) << device;
    EXPECT_FALSE(other.liveDiskDevicePath()) << device;
  }
  // Without the snapshot flag the device is not split.
  EXPECT_FALSE(describe(volume("apfs", kLocal, 0, "snap1@/dev/disk3s1")).snapshotName());
}

TEST_F(AttrListDiskTest, NamesUUIDAndNumbers) {
  auto attributes = volume();
  attributes.emplace(Key::volumeName, std::string("A/B/C"));
  attributes.emplace(Key::volumeUUID, uuidOf("e621e1f8-c36c-495a-93fc-0c247a3e6e5f"));
  attributes.emplace(Key::ownerID, std::uint32_t(501));
  attributes.emplace(Key::volumeSize, std::int64_t(1000));
  attributes.emplace(Key::spaceUsed, std::int64_t(600));
  attributes.emplace(Key::spaceFree, std::int64_t(400));
  attributes.emplace(Key::quota, std::int64_t(0));
  attributes.emplace(Key::volumeSignature, std::uint32_t(0x482B));
  const auto disk = describe(attributes);
  EXPECT_EQ(disk.name(), "A:B:C");
  EXPECT_EQ(disk.userVisibleName(), "A:B:C");
  EXPECT_EQ(disk.uuid(), "E621E1F8-C36C-495A-93FC-0C247A3E6E5F");
  EXPECT_EQ(disk.owner(), 501u);
  EXPECT_EQ(disk.capacity(), 1000);
  EXPECT_EQ(disk.bytesUsed(), 600);
  EXPECT_EQ(disk.bytesFree(), 400);
  EXPECT_FALSE(disk.quota());
  EXPECT_EQ(disk.volumeSignature(), 0x482Bu);
  EXPECT_EQ(disk.description(),
            "AttrListDisk(\"A:B:C\",\"apfs\",\"E621E1F8-C36C-495A-93FC-0C247A3E6E5F\","
            "\"/Volumes/Backup\")");
  // The data-volume rule is not consulted without the volume-groups capability.
  EXPECT_EQ(fake.uuidReads, 0);
  EXPECT_EQ(fake.nameReads, 0);
}

TEST_F(AttrListDiskTest, OptionalAttributesOfAnotherTypeAreAbsent) {
  auto attributes = volume();
  attributes.emplace(Key::quota, std::int64_t(4096));
  attributes.emplace(Key::volumeSize, std::uint64_t(1000));
  attributes.emplace(Key::volumeName, std::uint32_t(5));
  const auto disk = describe(attributes);
  EXPECT_EQ(disk.quota(), 4096);
  EXPECT_FALSE(disk.capacity());
  EXPECT_FALSE(disk.name());
  EXPECT_EQ(disk.description(), "AttrListDisk(\"-\",\"apfs\",\"-\",\"/Volumes/Backup\")");
}

TEST_F(AttrListDiskTest, DataVolumeOfAGroupTakesTheRootVolumeName) {
  auto attributes = volume("apfs", kLocal, kFmtVolGroups);
  attributes.emplace(Key::volumeName, std::string("Macintosh HD - Data"));
  EXPECT_EQ(describe(attributes).userVisibleName(), "Macintosh HD");  // two absent UUIDs match
  attributes.emplace(Key::volumeUUID, uuidOf("11111111-2222-3333-4444-555555555555"));
  fake.dataUUID = "11111111-2222-3333-4444-555555555555";
  const auto disk = describe(attributes);
  EXPECT_EQ(disk.name(), "Macintosh HD - Data");
  EXPECT_EQ(disk.userVisibleName(), "Macintosh HD");

  fake.dataUUID = "99999999-2222-3333-4444-555555555555";
  EXPECT_EQ(describe(attributes).userVisibleName(), "Macintosh HD - Data");
  EXPECT_EQ(describe(attributes, true).userVisibleName(), "Macintosh HD");
  // An unreadable root name keeps the volume's own.
  fake.rootName.reset();
  const int nameReads = fake.nameReads;
  EXPECT_EQ(describe(attributes, true).userVisibleName(), "Macintosh HD - Data");
  EXPECT_EQ(fake.nameReads, nameReads + 1);
}

TEST_F(AttrListDiskTest, MissingRequiredAttributeLogsOnceAndThrowsENOTSUP) {
  for (Key required : {Key::mountPoint, Key::mountedDeviceName, Key::fsID, Key::filesystemTypeName,
                       Key::mountFlags, Key::volumeCapabilities}) {
    auto logger = std::make_shared<testing::RecordingLogger>();
    CRLog::setLogger(logger);
    auto attributes = volume();
    attributes.erase(required);
    try {
      describe(attributes);
      ADD_FAILURE() << "described without " << required;
    } catch (const std::system_error& error) {
      EXPECT_EQ(error.code(), std::errc::not_supported);  // 45 where the codes come from
    }
    const auto records = logger->records();
    ASSERT_EQ(records.size(), 1u) << required;
    EXPECT_EQ(records[0].level, CRLogLevel::error);
    EXPECT_EQ(records[0].category, "AttrListDisk");
    EXPECT_TRUE(records[0].message.starts_with("Failed to initialize disk with attributes ["))
        << records[0].message;
    // The record prints what was read.
    const std::string kept = required == Key::filesystemTypeName ? "\"/dev/disk3s1\"" : "\"apfs\"";
    EXPECT_NE(records[0].message.find(kept), std::string::npos) << records[0].message;
  }
}

TEST_F(AttrListDiskTest, RequiredAttributeOfAnotherTypeFails) {
  auto attributes = volume();
  attributes.insert_or_assign(Key::mountFlags, std::uint64_t(kLocal));
  EXPECT_THROW(describe(attributes), std::system_error);
  EXPECT_EQ(logger->records().size(), 1u);
}

TEST(CRAttrListDiskTraits, MemberNamesInBitOrder) {
  const auto traits = Traits::volumeGroups | Traits::apfs | Traits::browsable | Traits(1ull << 40);
  const std::vector<std::string_view> expected = {"apfs", "browsable", "volumeGroups"};
  EXPECT_EQ(traits.memberNames(), expected);
  EXPECT_TRUE(Traits().memberNames().empty());
}

TEST(AttrListDisk, VolumeKeysAreTheFifteen) {
  const auto keys = AttrListDisk::volumeKeys();
  ASSERT_EQ(keys.size(), 15u);
  const auto request = AttrList::request(keys, AttrList::Options::volumeDefault());
  EXPECT_EQ(request.attributes, (AttributeSet{0x80008004, 0x9096F00F, 0, 0, 0}));
  EXPECT_EQ(request.kernelOptions, 0x225u);
}

}  // namespace
}  // namespace carrow
