#include "host/watch/fanotify_scope.h"

#include <gtest/gtest.h>
#include <sys/fanotify.h>
#include <sys/inotify.h>

#include "orn/simple_object.h"
#include "pax/enumerations.h"

namespace arvo::host {
namespace {

namespace modification = pax::modification;

class NullReceiver final : public orn::SimpleObject<pax::IInotifyEventsReceiver> {
 public:
  orn::result_t OnEvent(const pax::InotifyEvent&) override { return orn::errors::kOk; }
  orn::result_t GetName(orn::types::string8_t& name) const override {
    name = "null";
    return orn::errors::kOk;
  }
};

constexpr std::uint32_t kAll =
    IN_MODIFY | IN_ATTRIB | IN_MOVED_FROM | IN_MOVED_TO | IN_CREATE | IN_DELETE;

FanotifyDirectory Dir(char id) { return {7, 1, std::string(8, id)}; }

FanotifyRecord Record(std::uint64_t mask, char dir, std::string name) {
  FanotifyRecord r;
  r.mask = mask;
  r.directory = Dir(dir);
  r.name = std::move(name);
  return r;
}

FanotifyRecord Rename(char from, std::string fromName, char to, std::string toName,
                      bool isDirectory = false) {
  FanotifyRecord r = Record(FAN_RENAME | (isDirectory ? FAN_ONDIR : 0), from, std::move(fromName));
  r.newDirectory = Dir(to);
  r.newName = std::move(toName);
  return r;
}

// Directories: a = /data/a (area one), b = /data/b (area two), o = /other.
class FanotifyScopeTest : public ::testing::Test {
 protected:
  void SetUp() override {
    m_resolver.Remember(Dir('a'), "/data/a");
    m_resolver.Remember(Dir('b'), "/data/b");
    m_resolver.Remember(Dir('o'), "/other");
    m_resolver.Remember(Dir('r'), "/real/bin");
  }
  std::vector<pax::InotifyEvent> Translate(const FanotifyRecord& record) {
    std::vector<InotifyDelivery> out;
    m_scope.Translate(record, m_resolver, out);
    std::vector<pax::InotifyEvent> events;
    for (auto& d : out) events.push_back(d.event);
    return events;
  }

  FanotifyResolver m_resolver;
  FanotifyScope m_scope;
  orn::RefPtr<NullReceiver> m_one = orn::MakeSimple<NullReceiver>();
  orn::RefPtr<NullReceiver> m_two = orn::MakeSimple<NullReceiver>();
};

TEST_F(FanotifyScopeTest, ChangesInScopeKeepTheirMeaningAndOthersAreDropped) {
  m_scope.Add(m_one.Get(), "/data/a", "/data/a", 7, kAll);
  auto events = Translate(Record(FAN_CREATE, 'a', "f"));
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(events[0].path, "/data/a/f");
  EXPECT_EQ(events[0].mask, modification::kObjectCreated);

  // One record may merge a write and an attribute change of one file.
  events = Translate(Record(FAN_MODIFY | FAN_ATTRIB, 'a', "f"));
  ASSERT_EQ(events.size(), 2u);
  EXPECT_EQ(events[0].mask, modification::kObjectContentChanged);
  EXPECT_EQ(events[1].mask, modification::kObjectAttributesChanged);

  events = Translate(Record(FAN_DELETE | FAN_ONDIR, 'a', "d"));
  ASSERT_EQ(events.size(), 1u);
  EXPECT_TRUE(events[0].isDirectory);
  EXPECT_EQ(events[0].mask, modification::kObjectDeleted);

  EXPECT_TRUE(Translate(Record(FAN_CREATE, 'o', "f")).empty());
  EXPECT_TRUE(Translate(Record(FAN_CREATE, 'z', "f")).empty()) << "unknown directory";
  // "/data/ab" is not below "/data/a".
  m_resolver.Remember(Dir('x'), "/data/ab");
  EXPECT_TRUE(Translate(Record(FAN_CREATE, 'x', "f")).empty());
}

TEST_F(FanotifyScopeTest, MasksFilterAndOverlappingSubscriptionsTellOnce) {
  m_scope.Add(m_one.Get(), "/data", "/data", 7, IN_CREATE);
  m_scope.Add(m_one.Get(), "/data/a", "/data/a", 7, IN_CREATE);
  EXPECT_EQ(Translate(Record(FAN_CREATE, 'a', "f")).size(), 1u);
  EXPECT_TRUE(Translate(Record(FAN_MODIFY, 'a', "f")).empty());
}

TEST_F(FanotifyScopeTest, RenamesAreRenamesMovesOrCrossTheScope) {
  m_scope.Add(m_one.Get(), "/data/a", "/data/a", 7, kAll);
  auto events = Translate(Rename('a', "old", 'a', "new"));
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(events[0].mask, modification::kObjectRenamed);
  EXPECT_EQ(events[0].path, "/data/a/new");
  EXPECT_EQ(events[0].formerPath, "/data/a/old");

  events = Translate(Rename('a', "f", 'o', "f"));
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(events[0].mask, modification::kObjectDeleted);
  EXPECT_EQ(events[0].path, "/data/a/f");

  events = Translate(Rename('o', "f", 'a', "f"));
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(events[0].mask, modification::kObjectCreated);
}

TEST_F(FanotifyScopeTest, AMoveBetweenTwoAreasOfOneReceiverIsOneMove) {
  m_scope.Add(m_one.Get(), "/data/a", "/data/a", 7, kAll);
  m_scope.Add(m_one.Get(), "/data/b", "/data/b", 7, kAll);
  m_scope.Add(m_two.Get(), "/data/a", "/data/a", 7, kAll);
  const auto events = Translate(Rename('a', "f", 'b', "g"));
  ASSERT_EQ(events.size(), 2u);
  EXPECT_EQ(events[0].mask, modification::kObjectMoved);
  EXPECT_EQ(events[0].path, "/data/b/g");
  EXPECT_EQ(events[0].formerPath, "/data/a/f");
  EXPECT_EQ(events[1].mask, modification::kObjectDeleted) << "the other receiver saw it leave";
}

TEST_F(FanotifyScopeTest, ARootReachedThroughALinkIsReportedUnderItsOwnPath) {
  m_scope.Add(m_one.Get(), "/bin", "/real/bin", 7, kAll);
  const auto events = Translate(Record(FAN_CREATE, 'r', "ls"));
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(events[0].path, "/bin/ls");
}

TEST_F(FanotifyScopeTest, AMovedDirectoryForgetsItsFormerPath) {
  m_scope.Add(m_one.Get(), "/data", "/data", 7, kAll);
  m_resolver.Remember(Dir('s'), "/data/a/sub");
  (void)Translate(Rename('a', "sub", 'b', "sub", true));
  EXPECT_FALSE(m_resolver.PathOf(Dir('s'))) << "a stale path must not name new records";
  EXPECT_TRUE(m_resolver.PathOf(Dir('a')));
}

TEST_F(FanotifyScopeTest, AnUnmountedFileSystemIsToldToItsSubscriptionsOnly) {
  m_scope.Add(m_one.Get(), "/data/a", "/data/a", 7, kAll);
  m_scope.Add(m_two.Get(), "/mnt", "/mnt", 9, kAll);
  std::vector<InotifyDelivery> out;
  m_scope.EmitUnmounted(9, out);
  ASSERT_EQ(out.size(), 1u);
  EXPECT_EQ(out[0].event.path, "/mnt");
  EXPECT_NE(out[0].event.error.find("unmounted"), std::string::npos);
}

TEST_F(FanotifyScopeTest, OverflowReachesEverySubscription) {
  m_scope.Add(m_one.Get(), "/data/a", "/data/a", 7, kAll);
  m_scope.Add(m_two.Get(), "/data/b", "/data/b", 7, kAll);
  FanotifyRecord overflow;
  overflow.mask = FAN_Q_OVERFLOW;
  const auto events = Translate(overflow);
  ASSERT_EQ(events.size(), 2u);
  EXPECT_NE(events[0].error.find("events were lost under /data/a"), std::string::npos);
  EXPECT_EQ(events[1].path, "/data/b");
}

}  // namespace
}  // namespace arvo::host
