// Feeds arbitrary bytes to the attribute reply walker, with requests built from arbitrary key
// sets. The input is: one byte giving the number of keys, that many key choices, then the reply.
// Any input must either parse or throw AttrList::Error; the sanitizers catch every read outside
// the reply.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <fuzzer/FuzzedDataProvider.h>
#include <vector>

#include <carrow/attributes/attr_list.h>
#include <carrow/logging/log.h>
#include <carrow/volumes/attr_list_disk.h>

namespace {

using carrow::AttrList;
using carrow::RawAttrKey;

class DroppingLogger final : public carrow::CRLogger {
 public:
  bool shouldLog(std::optional<std::string_view>) override { return false; }
  void log(std::string_view, carrow::CRLogLevel, std::optional<std::string_view>, const char*,
           std::uint32_t) override {}
};

// A named key, or an unnamed one with a small fixed or variable entry.
AttrList::Key keyFrom(FuzzedDataProvider& input) {
  const auto choice = input.ConsumeIntegral<std::uint8_t>();
  if (choice < AttrList::Key::namedCount) return AttrList::Key::Named(choice);
  const auto kind = RawAttrKey::Kind(input.ConsumeIntegralInRange<int>(0, 4));
  const auto bit = std::uint32_t(1) << input.ConsumeIntegralInRange<int>(0, 31);
  const auto length = std::int64_t(input.ConsumeIntegralInRange<int>(0, 64));
  return AttrList::Key::other(
      RawAttrKey(kind, bit),
      input.ConsumeBool()
          ? AttrList::BufferEntryKind::fixed(AttrList::Decoders::unsigned32, length * 4)
          : AttrList::BufferEntryKind::variable(AttrList::Decoders::text, length));
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  carrow::CRLog::setLogger(std::make_shared<DroppingLogger>());
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  FuzzedDataProvider input(data, size);
  std::vector<AttrList::Key> keys;
  const auto keyCount = input.ConsumeIntegralInRange<int>(0, 16);
  for (int i = 0; i < keyCount; ++i) keys.push_back(keyFrom(input));

  // The request reserves the sum of the keys' reserves and asks for each key's bit.
  const auto request =
      AttrList::request(keys, AttrList::Options(input.ConsumeIntegral<std::uint8_t>()));
  std::int64_t reserved = 24;
  bool volumeKeys = false, volumeInfo = false;
  for (const auto& key : keys) {
    reserved += key.bufferEntryKind().bufferSize();
    volumeKeys |= key.rawKey().kind() == RawAttrKey::Kind::volume;
    volumeInfo |= key == AttrList::Key(AttrList::Key::volInfo);
    if (!(request.attributes.commonattr & 0x80000000)) std::abort();
  }
  if (volumeKeys && !volumeInfo) reserved += 4;  // room for the volume-information word
  if (request.bufferSize != std::size_t(reserved)) std::abort();

  // The reply in a buffer of its own size, so that any read past it is caught.
  const auto rest = input.ConsumeRemainingBytes<std::uint8_t>();
  std::vector<std::byte> reply(rest.size());
  for (std::size_t i = 0; i < rest.size(); ++i) reply[i] = std::byte(rest[i]);
  try {
    const auto values = AttrList::parseReply(reply);
    // Describing whatever was read must succeed or fail cleanly as well.
    static const carrow::AttrListDisk::Environment environment{
        [] { return std::optional<std::string>(); }, [] { return std::string("root"); }};
    try {
      (void)carrow::AttrListDisk::fromAttributes(values, false, environment).description();
    } catch (const std::system_error&) {
    }
  } catch (const AttrList::Error&) {
  }
  return 0;
}
