#include "host/watch/inotify_event_reader.h"

#include <errno.h>
#include <limits.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <cstddef>
#include <cstring>

namespace arvo::host {
namespace {

constexpr std::size_t kHeaderSize = sizeof(struct inotify_event);
// The largest record the kernel writes; a read needs room for one.
constexpr std::size_t kMaxRecord = kHeaderSize + NAME_MAX + 1;

}  // namespace

InotifyEventReader::InotifyEventReader(std::size_t capacity)
    : m_buffer(capacity < 2 * kMaxRecord ? 2 * kMaxRecord : capacity) {}

int InotifyEventReader::Fill(int fd) {
  Compact();
  if (m_buffer.size() - m_end < kMaxRecord) return 0;  // Drain frees room first
  for (;;) {
    const ssize_t n = ::read(fd, m_buffer.data() + m_end, m_buffer.size() - m_end);
    if (n >= 0) {
      m_end += static_cast<std::size_t>(n);
      return 0;
    }
    if (errno == EINTR) continue;
    return errno == EAGAIN ? 0 : errno;
  }
}

void InotifyEventReader::Drain(Clock::time_point now, std::vector<RawInotifyEvent>& out) {
  while (m_end - m_begin >= kHeaderSize) {
    const std::size_t at = m_begin;
    const Header h = HeaderAt(at);
    const std::size_t next = NextOffset(at, h);
    if (next > m_end) break;  // never happens with whole-record reads
    if (h.mask == 0) {        // the partner of a move handed out earlier
      m_begin = next;
      continue;
    }
    RawInotifyEvent ev;
    ev.wd = h.wd;
    ev.mask = h.mask;
    ev.name = NameAt(at, h);
    if (h.mask & IN_MOVED_FROM) {
      if (const std::size_t to = FindMovedTo(next, h.cookie); to != 0) {
        const Header th = HeaderAt(to);
        ev.toWd = th.wd;
        ev.toName = NameAt(to, th);
        MarkConsumed(to);
      } else if (at >= m_expiredEnd && !NearlyFull()) {
        if (!m_holdDeadline) {
          m_holdDeadline = now + kMovePairWait;
          m_holdEnd = m_end;
        }
        if (now < *m_holdDeadline) return;
        m_expiredEnd = m_holdEnd;
      }
      m_holdDeadline.reset();
    }
    m_begin = next;
    out.push_back(std::move(ev));
  }
}

InotifyEventReader::Header InotifyEventReader::HeaderAt(std::size_t offset) const {
  struct inotify_event raw;
  std::memcpy(&raw, m_buffer.data() + offset, kHeaderSize);
  return Header{raw.wd, raw.mask, raw.cookie, raw.len};
}

std::string InotifyEventReader::NameAt(std::size_t offset, const Header& h) const {
  const char* name = m_buffer.data() + offset + kHeaderSize;
  return std::string(name, ::strnlen(name, h.len));
}

std::size_t InotifyEventReader::NextOffset(std::size_t offset, const Header& h) const {
  return offset + kHeaderSize + h.len;
}

std::size_t InotifyEventReader::FindMovedTo(std::size_t offset, std::uint32_t cookie) const {
  while (offset < m_end && m_end - offset >= kHeaderSize) {
    const Header h = HeaderAt(offset);
    if ((h.mask & IN_MOVED_TO) && h.cookie == cookie) return offset;
    offset = NextOffset(offset, h);
  }
  return 0;
}

void InotifyEventReader::MarkConsumed(std::size_t offset) {
  const std::uint32_t zero = 0;
  std::memcpy(m_buffer.data() + offset + offsetof(struct inotify_event, mask), &zero, sizeof zero);
}

bool InotifyEventReader::NearlyFull() const {
  return m_end - m_begin > m_buffer.size() - kMaxRecord;
}

void InotifyEventReader::Compact() {
  if (m_begin == 0) return;
  const std::size_t shift = m_begin;
  std::memmove(m_buffer.data(), m_buffer.data() + shift, m_end - shift);
  m_end -= shift;
  m_begin = 0;
  m_holdEnd = m_holdEnd > shift ? m_holdEnd - shift : 0;
  m_expiredEnd = m_expiredEnd > shift ? m_expiredEnd - shift : 0;
}

}  // namespace arvo::host
