// Writes real attribute replies of this machine as seeds for attr_reply_fuzz:
//   make_attr_reply_corpus DIRECTORY
// Each seed is a reply followed by the fuzzer's trailer (options byte, key count 0).
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include <carrow/attributes/attr_list.h>
#include <carrow/platform/attr.h>
#include <carrow/volumes/attr_list_disk.h>

namespace {

using carrow::AttrList;
using Key = AttrList::Key;

bool writeSeed(const std::string& directory, const std::string& name, const std::string& path,
               const std::vector<Key>& keys, AttrList::Options options) {
  const auto request = AttrList::request(keys, options);
  carrow::platform::attrlist record{request.bitmapCount,           request.reserved,
                                    request.attributes.commonattr, request.attributes.volattr,
                                    request.attributes.dirattr,    request.attributes.fileattr,
                                    request.attributes.forkattr};
  std::vector<char> buffer(request.bufferSize);
  if (carrow::platform::getattrlist(path.c_str(), &record, buffer.data(), buffer.size(),
                                    request.kernelOptions)
      != 0) {
    std::perror(path.c_str());
    return false;
  }
  std::uint32_t length;
  std::memcpy(&length, buffer.data(), 4);
  buffer.resize(std::min<std::size_t>(length, buffer.size()));
  buffer.push_back(0);  // options
  buffer.push_back(0);  // key count
  std::ofstream(directory + "/" + name, std::ios::binary).write(buffer.data(), buffer.size());
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s DIRECTORY\n", argv[0]);
    return 2;
  }
  const std::string directory = argv[1];
  std::vector<Key> fileKeys, volumeKeys;
  for (Key::Named named : Key::allNamed()) {
    const Key key(named);
    (key.rawKey().kind() == carrow::RawAttrKey::Kind::volume ? volumeKeys : fileKeys)
        .push_back(key);
  }
  const auto disk = carrow::AttrListDisk::volumeKeys();
  const std::vector<Key> diskKeys(disk.begin(), disk.end());
  bool ok = true;
  ok &= writeSeed(directory, "root-volume", "/", diskKeys, AttrList::Options::volumeDefault());
  ok &= writeSeed(directory, "root-all-volume-keys", "/", volumeKeys, {});
  ok &= writeSeed(directory, "root-directory", "/", fileKeys, {});
  ok &= writeSeed(directory, "tmp-directory", "/tmp", fileKeys, {});
  ok &= writeSeed(directory, "dev-null", "/dev/null", fileKeys, {});
  ok &= writeSeed(directory, "proc-volume", "/proc", diskKeys, AttrList::Options::volumeDefault());
  ok &= writeSeed(directory, "name-only", "/etc/hostname", {Key::name}, {});
  ok &= writeSeed(directory, "link-no-follow", "/proc/self", fileKeys, AttrList::Options::noFollow);
  return ok ? 0 : 1;
}
