#pragma once

// The one table of the named attribute keys. Everything else about them (the `AttrList::Key::Named`
// cases, their count, their raw keys, their names and entry kinds) is expanded from it, so a key
// is added or changed in one row.
//
// X(caseName, group, bit, previous bit in reply order or std::nullopt, entry kind). The entry kind
// is spelled with the helpers of the attribute sources (`fixed(D::decoder, length)` or
// `variable(maxLength)`); the public header drops it.

// clang-format off
#define CARROW_ATTR_NAMED_KEYS(X) \
  X(returnedAttributes, common, 0x80000000u, 0u, fixed(D::attributeSet, 20)) \
  X(name, common, 0x00000001u, std::nullopt, variable(766)) \
  X(fsID, common, 0x00000004u, std::nullopt, fixed(D::fileSystemID, 8)) \
  X(realFSID, fork, 0x00000080u, std::nullopt, fixed(D::fileSystemID, 8)) \
  X(deviceID, common, 0x00000002u, std::nullopt, fixed(D::signed32, 4)) \
  X(objectType, common, 0x00000008u, std::nullopt, fixed(D::unsigned32, 4)) \
  X(objectTag, common, 0x00000010u, std::nullopt, fixed(D::unsigned32, 4)) \
  X(objectID, common, 0x00000020u, std::nullopt, fixed(D::objectID, 8)) \
  X(objectPermanentID, common, 0x00000040u, std::nullopt, fixed(D::objectID, 8)) \
  X(parentObjectID, common, 0x00000080u, std::nullopt, fixed(D::objectID, 8)) \
  X(textEncodingHint, common, 0x00000100u, std::nullopt, fixed(D::unsigned32, 4)) \
  X(createdTime, common, 0x00000200u, std::nullopt, fixed(D::time, 16)) \
  X(modificationTime, common, 0x00000400u, std::nullopt, fixed(D::time, 16)) \
  X(changeTime, common, 0x00000800u, std::nullopt, fixed(D::time, 16)) \
  X(accessTime, common, 0x00001000u, std::nullopt, fixed(D::time, 16)) \
  X(backupTime, common, 0x00002000u, std::nullopt, fixed(D::time, 16)) \
  X(ownerID, common, 0x00008000u, std::nullopt, fixed(D::unsigned32, 4)) \
  X(groupID, common, 0x00010000u, std::nullopt, fixed(D::unsigned32, 4)) \
  X(accessMask, common, 0x00020000u, std::nullopt, fixed(D::unsigned32, 4)) \
  X(flags, common, 0x00040000u, std::nullopt, fixed(D::unsigned32, 4)) \
  X(genCount, common, 0x00080000u, std::nullopt, fixed(D::unsigned32, 4)) \
  X(documentID, common, 0x00100000u, std::nullopt, fixed(D::unsigned32, 4)) \
  X(userAccess, common, 0x00200000u, std::nullopt, fixed(D::unsigned32, 4)) \
  X(ownerUUID, common, 0x00800000u, std::nullopt, fixed(D::guid, 16)) \
  X(groupUUID, common, 0x01000000u, std::nullopt, fixed(D::guid, 16)) \
  X(fileID, common, 0x02000000u, std::nullopt, fixed(D::unsigned64, 8)) \
  X(parentID, common, 0x04000000u, std::nullopt, fixed(D::unsigned64, 8)) \
  X(fullPath, common, 0x08000000u, std::nullopt, variable(1024)) \
  X(addedTime, common, 0x10000000u, std::nullopt, fixed(D::time, 16)) \
  X(protectionFlags, common, 0x40000000u, std::nullopt, fixed(D::unsigned32, 4)) \
  X(volInfo, volume, 0x80000000u, std::nullopt, fixed(D::unsigned32, 4)) \
  X(fsType, volume, 0x00000001u, 0u, fixed(D::unsigned32, 4)) \
  X(volumeSignature, volume, 0x00000002u, std::nullopt, fixed(D::unsigned32, 4)) \
  X(volumeSize, volume, 0x00000004u, 0x00000002u, fixed(D::signed64, 8)) \
  X(spaceFree, volume, 0x00000008u, 0x00000004u, fixed(D::signed64, 8)) \
  X(spaceAvailable, volume, 0x00000010u, 0x00000008u, fixed(D::signed64, 8)) \
  X(spaceUsed, volume, 0x00800000u, 0x00000010u, fixed(D::signed64, 8)) \
  X(minimumAllocation, volume, 0x00000020u, std::nullopt, fixed(D::signed64, 8)) \
  X(allocationClump, volume, 0x00000040u, std::nullopt, fixed(D::signed64, 8)) \
  X(ioBlockSize, volume, 0x00000080u, std::nullopt, fixed(D::unsigned32, 4)) \
  X(objectCount, volume, 0x00000100u, std::nullopt, fixed(D::unsigned32, 4)) \
  X(fileCount, volume, 0x00000200u, std::nullopt, fixed(D::unsigned32, 4)) \
  X(directoryCount, volume, 0x00000400u, std::nullopt, fixed(D::unsigned32, 4)) \
  X(maximumObjectCount, volume, 0x00000800u, std::nullopt, fixed(D::unsigned32, 4)) \
  X(mountPoint, volume, 0x00001000u, std::nullopt, variable(1024)) \
  X(volumeName, volume, 0x00002000u, std::nullopt, variable(766)) \
  X(mountFlags, volume, 0x00004000u, std::nullopt, fixed(D::unsigned32, 4)) \
  X(mountedDeviceName, volume, 0x00008000u, std::nullopt, variable(1024)) \
  X(encodingsUsed, volume, 0x00010000u, std::nullopt, fixed(D::unsigned64, 8)) \
  X(volumeCapabilities, volume, 0x00020000u, std::nullopt, fixed(D::capabilities, 32)) \
  X(volumeUUID, volume, 0x00040000u, std::nullopt, fixed(D::uuid, 16)) \
  X(quota, volume, 0x10000000u, 0x00040000u, fixed(D::signed64, 8)) \
  X(volumeReservedSize, volume, 0x20000000u, 0x10000000u, fixed(D::signed64, 8)) \
  X(volumeAttributes, volume, 0x40000000u, 0x20000000u, fixed(D::volumeAttributes, 40)) \
  X(filesystemTypeName, volume, 0x00100000u, 0x40000000u, variable(16)) \
  X(directoryLinkCount, directory, 0x00000001u, std::nullopt, fixed(D::unsigned32, 4)) \
  X(directoryEntryCount, directory, 0x00000002u, std::nullopt, fixed(D::unsigned32, 4)) \
  X(mountStatus, directory, 0x00000004u, std::nullopt, fixed(D::unsigned32, 4)) \
  X(allocSize, directory, 0x00000008u, std::nullopt, fixed(D::signed64, 8)) \
  X(directoryIOBlockSize, directory, 0x00000010u, std::nullopt, fixed(D::unsigned32, 4)) \
  X(directoryDataLength, directory, 0x00000020u, std::nullopt, fixed(D::signed64, 8)) \
  X(fileLinkCount, file, 0x00000001u, std::nullopt, fixed(D::unsigned32, 4))
// clang-format on
