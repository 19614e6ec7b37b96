// Little-endian byte encoding helpers for the host's own file and blob
// formats. The reader bounds-checks every access: hostile input makes a read
// fail, never read past the end.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

namespace arvo::host {

// Appends to a byte vector it does not own.
class ByteWriter {
 public:
  explicit ByteWriter(std::vector<std::uint8_t>& out) : m_out(out) {}

  void U8(std::uint8_t v) { m_out.push_back(v); }
  void U32(std::uint32_t v) { Fixed(v, 4); }
  void U64(std::uint64_t v) { Fixed(v, 8); }
  // LEB128: seven bits a byte, low bits first.
  void Var(std::uint64_t v) {
    while (v >= 0x80) {
      m_out.push_back(static_cast<std::uint8_t>(v | 0x80));
      v >>= 7;
    }
    m_out.push_back(static_cast<std::uint8_t>(v));
  }
  void Raw(const void* data, std::size_t size) {
    const auto* p = static_cast<const std::uint8_t*>(data);
    m_out.insert(m_out.end(), p, p + size);
  }
  // Length (Var) and bytes.
  void Sized(const void* data, std::size_t size) {
    Var(size);
    Raw(data, size);
  }

 private:
  void Fixed(std::uint64_t v, int bytes) {
    for (int i = 0; i < bytes; ++i) m_out.push_back(static_cast<std::uint8_t>(v >> (8 * i)));
  }
  std::vector<std::uint8_t>& m_out;
};

// Reads from a view it does not own. Every operation returns false, and
// consumes nothing, when the input is too short or malformed.
class ByteReader {
 public:
  ByteReader(const std::uint8_t* data, std::size_t size) : m_p(data), m_left(size) {}

  std::size_t Remaining() const { return m_left; }

  bool U8(std::uint8_t& v) {
    if (m_left < 1) return false;
    v = *m_p;
    Skip(1);
    return true;
  }
  bool U32(std::uint32_t& v) {
    std::uint64_t w = 0;
    if (!Fixed(w, 4)) return false;
    v = static_cast<std::uint32_t>(w);
    return true;
  }
  bool U64(std::uint64_t& v) { return Fixed(v, 8); }
  // At most ten bytes; a value beyond 64 bits is refused.
  bool Var(std::uint64_t& v) {
    std::uint64_t r = 0;
    for (std::size_t i = 0; i < 10 && i < m_left; ++i) {
      const std::uint8_t b = m_p[i];
      if (i == 9 && b > 1) return false;
      r |= static_cast<std::uint64_t>(b & 0x7F) << (7 * i);
      if ((b & 0x80) == 0) {
        v = r;
        Skip(i + 1);
        return true;
      }
    }
    return false;
  }
  // A view of the next `size` bytes.
  bool Raw(std::size_t size, const std::uint8_t*& data) {
    if (size > m_left) return false;
    data = m_p;
    Skip(size);
    return true;
  }
  // Length (Var) and bytes, as a view.
  bool Sized(std::string_view& out) {
    const std::uint8_t* save = m_p;
    const std::size_t saveLeft = m_left;
    std::uint64_t n = 0;
    const std::uint8_t* data = nullptr;
    if (!Var(n) || n > m_left || !Raw(static_cast<std::size_t>(n), data)) {
      m_p = save;
      m_left = saveLeft;
      return false;
    }
    out = std::string_view(reinterpret_cast<const char*>(data), static_cast<std::size_t>(n));
    return true;
  }

 private:
  bool Fixed(std::uint64_t& v, int bytes) {
    if (m_left < static_cast<std::size_t>(bytes)) return false;
    std::uint64_t r = 0;
    for (int i = 0; i < bytes; ++i) r |= static_cast<std::uint64_t>(m_p[i]) << (8 * i);
    v = r;
    Skip(static_cast<std::size_t>(bytes));
    return true;
  }
  void Skip(std::size_t n) {
    m_p += n;
    m_left -= n;
  }
  const std::uint8_t* m_p;
  std::size_t m_left;
};

}  // namespace arvo::host
