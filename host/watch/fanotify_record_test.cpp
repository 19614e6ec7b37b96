#include "host/watch/fanotify_record.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/fanotify.h>

#include <cstring>
#include <string>
#include <vector>

namespace arvo::host {
namespace {

TEST(FanotifyRecordTest, DecodesNamesHandlesAndRenameTargets) {
  // A record as the kernel lays it out: metadata, then two name records.
  std::string buffer(sizeof(fanotify_event_metadata), '\0');
  auto addFid = [&buffer](std::uint8_t type, const std::string& handle, const std::string& name) {
    fanotify_event_info_fid fid{};
    fid.hdr.info_type = type;
    file_handle fh{};
    fh.handle_bytes = static_cast<unsigned>(handle.size());
    fh.handle_type = 1;
    std::string rec(reinterpret_cast<const char*>(&fid), sizeof fid);
    rec.append(reinterpret_cast<const char*>(&fh), sizeof fh);
    rec += handle + name + '\0';
    rec.resize((rec.size() + 3) / 4 * 4, '\0');
    auto* header = reinterpret_cast<fanotify_event_info_header*>(rec.data());
    header->len = static_cast<std::uint16_t>(rec.size());
    buffer += rec;
  };
  addFid(FAN_EVENT_INFO_TYPE_OLD_DFID_NAME, "HANDLE01", "old");
  addFid(FAN_EVENT_INFO_TYPE_NEW_DFID_NAME, "HANDLE02", "new");
  fanotify_event_metadata meta{};
  meta.event_len = static_cast<std::uint32_t>(buffer.size());
  meta.vers = FANOTIFY_METADATA_VERSION;
  meta.metadata_len = sizeof meta;
  meta.mask = FAN_RENAME;
  meta.fd = FAN_NOFD;
  meta.pid = 42;
  std::memcpy(buffer.data(), &meta, sizeof meta);
  buffer += buffer;  // two records back to back

  std::vector<FanotifyRecord> records;
  EXPECT_EQ(DecodeFanotifyRecords(buffer.data(), buffer.size() - 1, records), buffer.size() / 2)
      << "a partial record is left for the next read";
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].pid, 42);
  EXPECT_EQ(records[0].name, "old");
  EXPECT_EQ(records[0].newName, "new");
  EXPECT_EQ(records[0].directory.handle, "HANDLE01");
  EXPECT_EQ(records[0].newDirectory.handle, "HANDLE02");
}

}  // namespace
}  // namespace arvo::host
