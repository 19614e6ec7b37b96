#include "host/watch/fanotify_record.h"

#include <fcntl.h>
#include <sys/fanotify.h>

#include <cstring>

namespace arvo::host {
namespace {

template <typename T>
T Load(const char* p) {
  T value;
  std::memcpy(&value, p, sizeof value);
  return value;
}

std::uint64_t FsidOf(const __kernel_fsid_t& fsid) {
  return (static_cast<std::uint64_t>(static_cast<std::uint32_t>(fsid.val[0])) << 32) |
         static_cast<std::uint32_t>(fsid.val[1]);
}

// One FAN_EVENT_INFO_TYPE_*DFID_NAME / DFID record: fsid, file handle, then
// (for the NAME forms) a NUL-terminated name.
bool DecodeFid(const char* info, std::size_t length, bool withName, FanotifyDirectory& dir,
               std::string& name) {
  constexpr std::size_t kFixed = sizeof(fanotify_event_info_fid);
  if (length < kFixed + sizeof(file_handle)) return false;
  const auto fid = Load<fanotify_event_info_fid>(info);
  const char* handleAt = info + kFixed;
  const auto handle = Load<file_handle>(handleAt);
  const std::size_t handleEnd = kFixed + sizeof(file_handle) + handle.handle_bytes;
  if (handleEnd > length) return false;
  dir.fsid = FsidOf(fid.fsid);
  dir.handleType = handle.handle_type;
  dir.handle.assign(handleAt + sizeof(file_handle), handle.handle_bytes);
  if (withName) {
    const char* nameAt = info + handleEnd;
    name.assign(nameAt, ::strnlen(nameAt, length - handleEnd));
  } else {
    name = ".";
  }
  return true;
}

void DecodeInfo(const char* info, std::size_t length, FanotifyRecord& record) {
  const auto header = Load<fanotify_event_info_header>(info);
  switch (header.info_type) {
    case FAN_EVENT_INFO_TYPE_DFID_NAME:
    case FAN_EVENT_INFO_TYPE_OLD_DFID_NAME:
      (void)DecodeFid(info, length, true, record.directory, record.name);
      break;
    case FAN_EVENT_INFO_TYPE_DFID:
      (void)DecodeFid(info, length, false, record.directory, record.name);
      break;
    case FAN_EVENT_INFO_TYPE_NEW_DFID_NAME:
      (void)DecodeFid(info, length, true, record.newDirectory, record.newName);
      break;
    case FAN_EVENT_INFO_TYPE_PIDFD: {
      if (length < sizeof(fanotify_event_info_pidfd)) break;
      const int pidfd = Load<fanotify_event_info_pidfd>(info).pidfd;
      if (pidfd >= 0) {
        record.pidfd.Reset(pidfd);
      } else if (pidfd == FAN_NOPIDFD) {
        record.pidExited = true;
      }
      break;
    }
    default:
      break;  // FID of the object itself, error records: not used
  }
}

}  // namespace

bool FanotifyRecord::Overflow() const { return (mask & FAN_Q_OVERFLOW) != 0; }

std::size_t DecodeFanotifyRecords(const char* data, std::size_t size,
                                  std::vector<FanotifyRecord>& out) {
  std::size_t offset = 0;
  while (size - offset >= sizeof(fanotify_event_metadata)) {
    const auto meta = Load<fanotify_event_metadata>(data + offset);
    if (meta.event_len < sizeof(fanotify_event_metadata) || meta.event_len > size - offset) break;
    const char* record = data + offset;
    offset += meta.event_len;
    if (meta.fd >= 0) ::close(meta.fd);  // never asked for, but never leaked either
    if (meta.vers != FANOTIFY_METADATA_VERSION) continue;
    FanotifyRecord decoded;
    decoded.mask = meta.mask;
    decoded.pid = meta.pid;
    for (std::size_t at = meta.metadata_len;
         at + sizeof(fanotify_event_info_header) <= meta.event_len;) {
      const auto header = Load<fanotify_event_info_header>(record + at);
      if (header.len < sizeof header || at + header.len > meta.event_len) break;
      DecodeInfo(record + at, header.len, decoded);
      at += header.len;
    }
    if (decoded.Overflow() || decoded.directory.Valid()) out.push_back(std::move(decoded));
  }
  return offset;
}

}  // namespace arvo::host
