// The only multi-byte accessors of the converters. A field is either reversed in place (whatever
// the direction), or its value is loaded in a stated order from single bytes, so that nothing
// depends on the host's order or on alignment.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>

namespace bt {

using Bytes = std::span<std::uint8_t>;

inline std::uint16_t LoadLE16(const std::uint8_t* p) { return static_cast<std::uint16_t>(p[0] | p[1] << 8); }
inline std::uint16_t LoadBE16(const std::uint8_t* p) { return static_cast<std::uint16_t>(p[1] | p[0] << 8); }
inline std::uint32_t LoadLE32(const std::uint8_t* p) {
  return std::uint32_t{p[0]} | std::uint32_t{p[1]} << 8 | std::uint32_t{p[2]} << 16 | std::uint32_t{p[3]} << 24;
}
inline std::uint32_t LoadBE32(const std::uint8_t* p) {
  return std::uint32_t{p[3]} | std::uint32_t{p[2]} << 8 | std::uint32_t{p[1]} << 16 | std::uint32_t{p[0]} << 24;
}
inline std::uint64_t LoadLE64(const std::uint8_t* p) { return LoadLE32(p) | std::uint64_t{LoadLE32(p + 4)} << 32; }
inline std::uint64_t LoadBE64(const std::uint8_t* p) { return LoadBE32(p + 4) | std::uint64_t{LoadBE32(p)} << 32; }

inline std::uint16_t Load16(const std::uint8_t* p, bool big) { return big ? LoadBE16(p) : LoadLE16(p); }
inline std::uint32_t Load32(const std::uint8_t* p, bool big) { return big ? LoadBE32(p) : LoadLE32(p); }
inline std::uint64_t Load64(const std::uint8_t* p, bool big) { return big ? LoadBE64(p) : LoadLE64(p); }

inline void StoreLE32(std::uint8_t* p, std::uint32_t v) {
  p[0] = static_cast<std::uint8_t>(v);
  p[1] = static_cast<std::uint8_t>(v >> 8);
  p[2] = static_cast<std::uint8_t>(v >> 16);
  p[3] = static_cast<std::uint8_t>(v >> 24);
}
inline void StoreLE16(std::uint8_t* p, std::uint16_t v) {
  p[0] = static_cast<std::uint8_t>(v);
  p[1] = static_cast<std::uint8_t>(v >> 8);
}
inline void StoreLE64(std::uint8_t* p, std::uint64_t v) {
  StoreLE32(p, static_cast<std::uint32_t>(v));
  StoreLE32(p + 4, static_cast<std::uint32_t>(v >> 32));
}
inline void StoreBE32(std::uint8_t* p, std::uint32_t v) {
  p[3] = static_cast<std::uint8_t>(v);
  p[2] = static_cast<std::uint8_t>(v >> 8);
  p[1] = static_cast<std::uint8_t>(v >> 16);
  p[0] = static_cast<std::uint8_t>(v >> 24);
}

// In-place reversals. memcpy moves the bytes into a register without any pointer cast or
// alignment assumption; the compiler turns each into a load, a byte swap and a store.
inline void Rev2(std::uint8_t* p) {
  std::uint16_t v;
  std::memcpy(&v, p, 2);
  v = __builtin_bswap16(v);
  std::memcpy(p, &v, 2);
}
inline void Rev3(std::uint8_t* p) {
  std::uint8_t t = p[0];
  p[0] = p[2];
  p[2] = t;
}
inline void Rev4(std::uint8_t* p) {
  std::uint32_t v;
  std::memcpy(&v, p, 4);
  v = __builtin_bswap32(v);
  std::memcpy(p, &v, 4);
}
inline void Rev8(std::uint8_t* p) {
  std::uint64_t v;
  std::memcpy(&v, p, 8);
  v = __builtin_bswap64(v);
  std::memcpy(p, &v, 8);
}
inline void RevN(std::uint8_t* p, std::size_t n) {
  for (std::size_t i = 0, j = n - 1; i < j; ++i, --j) {
    std::uint8_t t = p[i];
    p[i] = p[j];
    p[j] = t;
  }
}

// Bounds-checked forms: a field that does not lie wholly inside the span is left alone, so a
// malformed block can never make a converter read or write outside its buffer.
inline bool Fits(Bytes s, std::size_t off, std::size_t width) { return off <= s.size() && width <= s.size() - off; }
inline void Rev16At(Bytes s, std::size_t off) {
  if (Fits(s, off, 2)) Rev2(s.data() + off);
}
inline void Rev32At(Bytes s, std::size_t off) {
  if (Fits(s, off, 4)) Rev4(s.data() + off);
}
inline void Rev64At(Bytes s, std::size_t off) {
  if (Fits(s, off, 8)) Rev8(s.data() + off);
}
// Reverses every unit of width bytes from off while a whole unit fits before end (and before the
// end of the span). Widths 2, 4 and 8 run as tight loops the compiler can turn into shuffles.
inline void RevEach(Bytes s, std::size_t off, std::size_t end, std::size_t width) {
  if (end > s.size()) end = s.size();
  if (off >= end || width > end - off) return;
  const std::size_t count = (end - off) / width;
  std::uint8_t* p = s.data() + off;
  // Runs of 2- and 4-byte units go eight bytes at a time: four swaps, or two reversals, per step.
  std::size_t i = 0;
  switch (width) {
    case 2:
      for (; i + 4 <= count; i += 4) {
        std::uint64_t v;
        std::memcpy(&v, p + 2 * i, 8);
        v = (v & 0x00FF00FF00FF00FFull) << 8 | (v >> 8 & 0x00FF00FF00FF00FFull);
        std::memcpy(p + 2 * i, &v, 8);
      }
      for (; i < count; ++i) Rev2(p + 2 * i);
      break;
    case 4:
      for (; i + 2 <= count; i += 2) {
        std::uint64_t v;
        std::memcpy(&v, p + 4 * i, 8);
        v = __builtin_bswap64(v);
        v = v << 32 | v >> 32;
        std::memcpy(p + 4 * i, &v, 8);
      }
      for (; i < count; ++i) Rev4(p + 4 * i);
      break;
    case 8:
      for (; i < count; ++i) Rev8(p + 8 * i);
      break;
    default:
      for (; i < count; ++i) RevN(p + width * i, width);
      break;
  }
}
inline void RevEach32(Bytes s, std::size_t off, std::size_t end) { RevEach(s, off, end, 4); }

}  // namespace bt
