#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include <carrow/attributes/attr_list.h>

#include "cli.h"

namespace carrow::tool {

namespace {

using Key = AttrList::Key;

constexpr std::uint32_t kMountPointStatus = 0x1;  // DIR_MNTSTATUS_MNTPOINT

bool isVolumeKey(const Key& key) {
  return key.rawKey().kind() == RawAttrKey::Kind::volume;
}

// Volume attributes cannot be asked for together with the others, so a read is split in two.
AttrList::Attributes read(const std::string& path, const std::vector<Key>& keys,
                          AttrList::Options options) {
  std::vector<Key> volumeKeys, otherKeys;
  for (const Key& key : keys) (isVolumeKey(key) ? volumeKeys : otherKeys).push_back(key);
  AttrList::Attributes values;
  if (!otherKeys.empty()) values = AttrList::attributes(path, otherKeys, options);
  if (!volumeKeys.empty()) values.merge(AttrList::attributes(path, volumeKeys, options));
  return values;
}

// Every named key but the returned set; volume keys only when the path is a mount point.
AttrList::Attributes readAll(const std::string& path, AttrList::Options options) {
  std::vector<Key> keys, volumeKeys;
  for (Key::Named named : Key::allNamed()) {
    const Key key(named);
    if (named == Key::returnedAttributes) continue;
    (isVolumeKey(key) ? volumeKeys : keys).push_back(key);
  }
  auto values = AttrList::attributes(path, keys, options);
  auto status = values.find(Key::mountStatus);
  const auto* bits = status == values.end() ? nullptr : status->second.get<std::uint32_t>();
  if (bits && (*bits & kMountPointStatus)) {
    values.merge(AttrList::attributes(path, volumeKeys, options));
  }
  return values;
}

// A name for JSON and text output; unnamed attributes show their group and bit.
std::string label(const Key& key) {
  if (!key.isOther()) return std::string(key.caseName());
  char bit[16];
  std::snprintf(bit, sizeof bit, "0x%08x", key.rawKey().attrBit());
  return std::string(name(key.rawKey().kind())) + ":" + bit;
}

}  // namespace

int runAttrs(Arguments arguments) {
  std::optional<std::string> path;
  std::vector<Key> keys;
  AttrList::Options options;
  bool json = false;
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    const std::string_view argument = arguments[i];
    if (argument == "--json") {
      json = true;
    } else if (argument == "--no-follow") {
      options.insert(AttrList::Options::noFollow);
    } else if (argument == "--key" || argument.starts_with("--key=")) {
      std::string_view name;
      if (argument == "--key") {
        if (++i == arguments.size()) throw UsageError("attrs: --key needs a key name");
        name = arguments[i];
      } else {
        name = argument.substr(6);
      }
      auto key = Key::named(name);
      if (!key || key == Key(Key::returnedAttributes)) {
        throw UsageError("attrs: unknown key '" + std::string(name) + "'");
      }
      keys.push_back(*key);
    } else if (!argument.starts_with("-") && !path) {
      path = argument;
    } else {
      throw UsageError("attrs: unexpected argument '" + std::string(argument) + "'");
    }
  }
  if (!path) throw UsageError("attrs: a path is required");

  AttrList::Attributes values;
  try {
    values = keys.empty() ? readAll(*path, options) : read(*path, keys, options);
  } catch (...) {
    return reportFailure(*path);
  }

  std::vector<const AttrList::Attributes::value_type*> entries;
  for (const auto& entry : values) entries.push_back(&entry);
  std::sort(entries.begin(), entries.end(), [](auto* a, auto* b) { return a->first < b->first; });
  if (json) {
    nlohmann::ordered_json object = nlohmann::ordered_json::object();
    for (const auto* entry : entries) object[label(entry->first)] = toJSON(entry->second);
    printJSON(object);
  } else {
    std::size_t width = 0;
    for (const auto* entry : entries) width = std::max(width, label(entry->first).size());
    for (const auto* entry : entries) {
      std::printf("%-*s  %s\n", int(width), label(entry->first).c_str(),
                  toText(entry->second).c_str());
    }
  }
  return 0;
}

}  // namespace carrow::tool
