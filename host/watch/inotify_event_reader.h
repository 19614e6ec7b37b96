// Reads raw inotify records into one large buffer and hands them out in
// arrival order, joining each IN_MOVED_FROM with the IN_MOVED_TO of the same
// cookie.
//
// The kernel queues the two halves of a rename one after the other, but a
// reader woken by the first half may read before the second is queued, and
// records of other directories may land in between. So an IN_MOVED_FROM whose
// partner is not in the buffer yet holds back itself and everything after it
// (order is kept) for at most kMovePairWait after it was first examined; then
// it is handed out alone, which the caller reads as a move out of the watched
// tree. Every IN_MOVED_FROM already read when a wait expires is resolved at
// once without waiting again, so a burst of moves out costs one wait.
//
// Not thread-safe: owned and used by the delivery thread only.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace arvo::host {

struct RawInotifyEvent {
  int wd = -1;
  std::uint32_t mask = 0;  // the record's mask; IN_MOVED_FROM for a joined move
  std::string name;        // empty for events on the watched directory itself
  // Destination of a joined move; toWd is -1 otherwise.
  int toWd = -1;
  std::string toName;

  bool IsJoinedMove() const { return toWd >= 0; }
};

class InotifyEventReader {
 public:
  using Clock = std::chrono::steady_clock;
  static constexpr std::chrono::microseconds kMovePairWait{5000};
  static constexpr std::size_t kDefaultCapacity = 256 * 1024;

  explicit InotifyEventReader(std::size_t capacity = kDefaultCapacity);

  // Reads once from the non-blocking descriptor `fd`. Returns 0 when data was
  // read or none was pending, else the errno of the read.
  int Fill(int fd);

  // Appends the events that are ready at `now`, in arrival order.
  void Drain(Clock::time_point now, std::vector<RawInotifyEvent>& out);

  // When a held-back IN_MOVED_FROM must be resolved; empty when none is held.
  std::optional<Clock::time_point> Deadline() const { return m_holdDeadline; }

  // Bytes read but not handed out yet.
  std::size_t Pending() const { return m_end - m_begin; }

 private:
  struct Header {
    int wd;
    std::uint32_t mask;
    std::uint32_t cookie;
    std::uint32_t len;
  };
  Header HeaderAt(std::size_t offset) const;
  std::string NameAt(std::size_t offset, const Header& h) const;
  std::size_t NextOffset(std::size_t offset, const Header& h) const;
  // Offset of the unconsumed IN_MOVED_TO with `cookie` after `offset`, or 0.
  std::size_t FindMovedTo(std::size_t offset, std::uint32_t cookie) const;
  void MarkConsumed(std::size_t offset);
  bool NearlyFull() const;
  void Compact();

  std::vector<char> m_buffer;
  std::size_t m_begin = 0;  // first record not handed out
  std::size_t m_end = 0;    // end of the bytes read
  // The hold on an unpaired IN_MOVED_FROM: its deadline and the end of the
  // bytes read when the hold began.
  std::optional<Clock::time_point> m_holdDeadline;
  std::size_t m_holdEnd = 0;
  // Records before this offset were read before an expired hold began:
  // their unpaired IN_MOVED_FROM need no wait of their own.
  std::size_t m_expiredEnd = 0;
};

}  // namespace arvo::host
