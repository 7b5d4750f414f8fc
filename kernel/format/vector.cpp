#include "vector.h"

#include "messages.h"

namespace bt {

namespace {

// Half-byte regrouping of the three packed bytes of a 4-byte list entry.
void RegroupNibbles(std::uint8_t* e, bool asRead) {
  const unsigned b0 = e[0], b1 = e[1], b2 = e[2];
  auto join = [](unsigned high, unsigned low) { return static_cast<std::uint8_t>((high & 0xF) << 4 | (low & 0xF)); };
  if (asRead) {
    e[0] = join(b1, b0 >> 4);
    e[1] = join(b0, b2 >> 4);
    e[2] = join(b2, b1 >> 4);
  } else {
    e[0] = join(b0, b1 >> 4);
    e[1] = join(b2, b0 >> 4);
    e[2] = join(b1, b2 >> 4);
  }
}

// Applies convert to count entries of size bytes from off, as long as whole entries fit.
template <typename Convert>
void EachEntry(Bytes v, std::size_t off, std::uint64_t count, std::size_t size, Convert convert) {
  if (off > v.size()) return;
  const std::uint64_t fit = (v.size() - off) / size;
  if (count > fit) count = fit;
  std::uint8_t* e = v.data() + off;
  for (std::uint64_t i = 0; i < count; ++i, e += size) convert(e);
}

// A list chunk at c: its count and the word after it, then its entries.
void ConvertListChunk(Bytes v, std::size_t c, unsigned type, unsigned width, bool asRead) {
  if (!Fits(v, c, 8)) return;  // no count to read
  const std::uint64_t k = Load32(v.data() + c, !asRead);
  Rev4(v.data() + c);
  Rev4(v.data() + c + 4);
  const std::size_t e = c + 8;
  if (type == 1) {
    if (width == 0 || width == 3)
      EachEntry(v, e, k, 16, [](std::uint8_t* x) { Rev8(x), Rev4(x + 8), Rev2(x + 12), Rev2(x + 14); });
    else if (width == 1)
      EachEntry(v, e, k, 6, [](std::uint8_t* x) { Rev2(x), Rev2(x + 2); });
    else
      EachEntry(v, e, k, 8, [](std::uint8_t* x) { Rev2(x), Rev2(x + 2), Rev3(x + 5); });
  } else if (type == 2) {
    EachEntry(v, e, k, 16, [](std::uint8_t* x) { Rev4(x), Rev4(x + 4), Rev8(x + 8); });
  } else if (type == 0 || type == 3 || type == 4) {
    if (width == 0)
      EachEntry(v, e, k, 4, [asRead](std::uint8_t* x) { RegroupNibbles(x, asRead); });
    else if (width == 1)
      EachEntry(v, e, k, 6, [](std::uint8_t* x) { Rev2(x), Rev2(x + 2), Rev2(x + 4); });
    else if (width == 2)
      EachEntry(v, e, k, 8, [](std::uint8_t* x) { Rev2(x), Rev2(x + 2), Rev4(x + 4); });
    else
      EachEntry(v, e, k, 16, [](std::uint8_t* x) { Rev4(x), Rev4(x + 4), Rev8(x + 8); });
  }
}

// A full chunk whose elements start at e = chunk + 128 (a chunk itself may begin before the buffer).
void ConvertFullChunk(Bytes v, std::size_t e, unsigned type, unsigned width) {
  constexpr std::size_t n = vec::kFullChunkElements;
  if (type == 1) {
    if (width == 0)
      RevEach(v, e + 1024, e + 1024 + 8 * n, 8);
    else if (width == 2)
      EachEntry(v, e, n, 4, [](std::uint8_t* x) { Rev3(x + 1); });
    else if (width == 3)
      EachEntry(v, e, n, 8, [](std::uint8_t* x) { RevN(x + 1, 7); });
  } else if (type == 2) {
    RevEach(v, e, e + 8 * n, 8);
  } else if ((type == 0 || type == 3 || type == 4) && width != 0) {
    const std::size_t size = std::size_t{1} << width;  // 2, 4 or 8 bytes
    RevEach(v, e, e + size * n, size);
  }
}

void XError(int line) { Print("xerror #%d from line #%d\n", 89, line); }

}  // namespace

void CvVector(Bytes buffer, std::size_t start) {
  if (start > buffer.size()) return;
  const Bytes v = buffer.subspan(start);  // the header and directory, as far as they fit
  if (v.size() < 2) return;
  const bool asRead = v[1] == vec::kVectorMark;
  const bool big = !asRead;  // the order the vector is stored in

  // The directory as it stands before any conversion: chunks may overlap it. Only the entries in
  // use are kept.
  std::uint16_t directory[vec::kDirectoryEntries];
  int used = 0;
  const std::size_t directoryEnd = v.size() < vec::kHeaderEnd ? v.size() : vec::kHeaderEnd;
  for (std::size_t off = vec::kDirectory; off + 2 <= directoryEnd; off += 2) {
    if (off % 8 == 0 && off + 8 <= directoryEnd && LoadLE64(v.data() + off) == 0) {
      off += 6;  // four empty entries at once: most of a directory is empty
      continue;
    }
    const std::uint16_t entry = Load16(v.data() + off, big);
    if (entry != 0) directory[used++] = entry;
  }
  const unsigned type = Load16(v.data(), big) & 0xFF;
  const std::uint32_t tailOffset = Fits(v, vec::kTailOffset, 4) ? Load32(v.data() + vec::kTailOffset, big) : 0;
  const std::uint32_t tailPresent = Fits(v, vec::kTailPresent, 4) ? Load32(v.data() + vec::kTailPresent, big) : 0;

  Rev16At(v, 0);
  Rev16At(v, 4);
  Rev16At(v, 6);
  Rev32At(v, 8);
  Rev32At(v, vec::kTailOffset);
  Rev32At(v, vec::kTailPresent);
  RevEach(v, 20, vec::kHeaderEnd, 2);

  for (int i = 0; i < used; ++i) {
    const std::uint16_t entry = directory[i];
    // Chunk c begins 128 * c - 64 bytes after the vector's start (chunk 0 before it), its full
    // elements 128 bytes later.
    const std::size_t elements = start + 128 * std::size_t{entry & 0x1FFFu} + 64;
    const unsigned width = (entry >> 13) & 3;
    if (entry & 0x8000) {
      if (elements >= 128) ConvertListChunk(buffer, elements - 128, type, width, asRead);
    } else {
      ConvertFullChunk(buffer, elements, type, width);
    }
  }
  if (tailPresent != 0) CvVectorTail(buffer, start + std::size_t{tailOffset}, asRead);
}

void CvVectorTail(Bytes v, std::size_t t, bool asRead) {
  if (!Fits(v, t, 12)) return;
  const bool big = !asRead;
  std::uint8_t* base = v.data() + t;
  const std::uint64_t n = Load32(base, big);
  const std::size_t end = t + 128 * std::size_t{Load16(base + 8, big)};
  const unsigned kind = Load16(base + 10, big);
  Rev4(base);
  Rev4(base + 4);
  Rev2(base + 8);
  Rev2(base + 10);

  // The offset table lies at the area's end, its first entry last; width is 1, 2 or 4 bytes. All n
  // entries are taken, back over the tail's own fields and before t, as far as the buffer goes.
  auto eachOffset = [&](std::size_t width, auto handle) {
    std::uint64_t i = 0;
    if (end > v.size()) i = (end - v.size() + width - 1) / width;  // the first that ends inside
    for (; i < n && width * (i + 1) <= end; ++i) {
      const std::size_t at = end - width * (i + 1);
      if (Fits(v, at, width)) handle(at);
    }
  };
  if (kind == 0) {
    eachOffset(1, [&](std::size_t at) {
      const std::size_t x = t + v[at] + 1;
      if (x < v.size() && !(v[x] & 1)) XError(3180);
    });
  } else if (kind == 1) {
    RevEach(v, t + 12, t + 140, 2);
    eachOffset(2, [&](std::size_t at) {
      const std::size_t x = t + Load16(v.data() + at, big);
      Rev2(v.data() + at);
      const bool flagged = !Fits(v, x + 2, 2) || (Load16(v.data() + x + 2, big) & 1);
      for (std::size_t f = 0; f < 8; f += 2) Rev16At(v, x + f);
      if (!flagged) XError(3216);
    });
  } else if (kind == 2) {
    RevEach(v, t + 12, t + 1036, 4);
    eachOffset(4, [&](std::size_t at) {
      const std::size_t x = t + Load32(v.data() + at, big);
      Rev4(v.data() + at);
      const bool flagged = !Fits(v, x + 4, 4) || (Load32(v.data() + x + 4, big) & 1);
      Rev32At(v, x);
      Rev32At(v, x + 4);
      Rev16At(v, x + 8);
      Rev16At(v, x + 10);
      if (!flagged) XError(3252);
    });
  }
}

}  // namespace bt
