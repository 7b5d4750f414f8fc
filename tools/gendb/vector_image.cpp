// Vector images for the generator: a header with its chunk directory, list and full chunks of
// every element type and width class, and a tail of kind 0, 1 or 2, rendered in either order.
#include <cstring>
#include <vector>

#include "gendb_internal.h"

namespace gendb {

namespace {

struct Chunk {
  unsigned number;  // the chunk starts at 128 * number - 64
  bool list;
  unsigned width;
  unsigned count;  // list entries
};

struct Layout {
  std::vector<Chunk> chunks;
  bool tail = false;
  unsigned tailKind = 0, tailItems = 0, tailUnits = 0;
  std::size_t tailOffset = 0;
  std::size_t size = 0;
};

std::size_t ListEntrySize(unsigned type, unsigned width) {
  if (type == 1) return width == 1 ? 6 : width == 2 ? 8 : 16;
  if (type == 2) return 16;
  return width == 0 ? 4 : width == 1 ? 6 : width == 2 ? 8 : 16;
}

std::size_t FullChunkSize(unsigned type, unsigned width) {
  if (type == 1) return width == 0 ? 1152 + 8192 : width == 1 ? 128 : 128 + 1024 * (width == 2 ? 4 : 8);
  if (type == 2) return 128 + 8192;
  return width == 0 ? 128 : 128 + 1024 * (std::size_t{1} << width);
}

std::size_t TailBytes(unsigned kind, unsigned items) {
  if (kind == 0) return 12 + 2 * items + items;
  if (kind == 1) return 140 + 8 * items + 2 * items;
  return 1036 + 12 * items + 4 * items;
}

Layout MakeLayout(const VectorShape& shape) {
  Rng rng(shape.seed);
  Layout l;
  std::size_t next = 192;  // chunk 2: the first one past the directory
  unsigned chunks = 1 + rng.Below(shape.inlineSized ? 3 : 6);
  for (unsigned i = 0; i < chunks; ++i) {
    Chunk c{static_cast<unsigned>((next + 64) / 128), shape.inlineSized || rng.Below(2) == 0, rng.Below(4), 0};
    std::size_t bytes;
    if (c.list) {
      c.count = rng.Below(shape.inlineSized ? 12 : 200);
      bytes = 8 + c.count * ListEntrySize(shape.elementType, c.width);
    } else {
      bytes = FullChunkSize(shape.elementType, c.width);
    }
    l.chunks.push_back(c);
    next += (bytes + 127) / 128 * 128;
  }
  l.tail = rng.Below(4) != 0;
  if (l.tail) {
    l.tailKind = rng.Below(shape.inlineSized ? 2 : 3);
    l.tailItems = rng.Below(shape.inlineSized ? 6 : 40);
    l.tailUnits = static_cast<unsigned>((TailBytes(l.tailKind, l.tailItems) + 127) / 128);
    l.tailOffset = next + 8 * rng.Below(4);
    next = l.tailOffset + 128 * l.tailUnits;
  }
  l.size = next;
  return l;
}

void U24(const Out& o, std::size_t off, std::uint32_t v) {
  for (int i = 0; i < 3; ++i) o.p[off + (o.big ? 2 - i : i)] = static_cast<std::uint8_t>(v >> (8 * i));
}

void U56(const Out& o, std::size_t off, std::uint64_t v) {
  for (int i = 0; i < 7; ++i) o.p[off + (o.big ? 6 - i : i)] = static_cast<std::uint8_t>(v >> (8 * i));
}

void RenderListEntry(const Out& o, std::size_t e, unsigned type, unsigned width, Rng& rng) {
  auto r16 = [&] { return static_cast<std::uint16_t>(rng.Next()); };
  auto r32 = [&] { return static_cast<std::uint32_t>(rng.Next()); };
  if (type == 1) {
    if (width == 1) {
      o.U16(e, r16()), o.U16(e + 2, r16());
    } else if (width == 2) {
      o.U16(e, r16()), o.U16(e + 2, r16()), U24(o, e + 5, r32());
    } else {
      o.U64(e, rng.Next()), o.U32(e + 8, r32()), o.U16(e + 12, r16()), o.U16(e + 14, r16());
    }
  } else if (type == 2 || width == 3) {
    o.U32(e, r32()), o.U32(e + 4, r32()), o.U64(e + 8, rng.Next());
  } else if (width == 0) {
    for (int i = 0; i < 3; ++i) o.p[e + i] = rng.Byte();
    PackNibbles(o.p + e, o.big);
  } else if (width == 1) {
    o.U16(e, r16()), o.U16(e + 2, r16()), o.U16(e + 4, r16());
  } else {
    o.U16(e, r16()), o.U16(e + 2, r16()), o.U32(e + 4, r32());
  }
}

void RenderFullChunk(const Out& o, std::size_t c, unsigned type, unsigned width, Rng& rng) {
  for (std::size_t i = 0; i < 1024; ++i) {
    if (type == 1) {
      if (width == 0) o.U64(c + 1152 + 8 * i, rng.Next());
      if (width == 2) U24(o, c + 128 + 4 * i + 1, static_cast<std::uint32_t>(rng.Next()));
      if (width == 3) U56(o, c + 128 + 8 * i + 1, rng.Next());
    } else if (type == 2) {
      o.U64(c + 128 + 8 * i, rng.Next());
    } else if (width == 1) {
      o.U16(c + 128 + 2 * i, static_cast<std::uint16_t>(rng.Next()));
    } else if (width == 2) {
      o.U32(c + 128 + 4 * i, static_cast<std::uint32_t>(rng.Next()));
    } else if (width == 3) {
      o.U64(c + 128 + 8 * i, rng.Next());
    }
  }
}

// Items of the tail follow its fixed part; the table of their offsets ends the area, first
// offset last. Every item carries its flag bit.
void RenderTail(const Out& o, std::size_t t, const Layout& l, Rng& rng) {
  const unsigned n = l.tailItems;
  const std::size_t end = t + 128 * l.tailUnits;
  o.U32(t, n);
  o.U32(t + 4, static_cast<std::uint32_t>(rng.Next()));
  o.U16(t + 8, static_cast<std::uint16_t>(l.tailUnits));
  o.U16(t + 10, static_cast<std::uint16_t>(l.tailKind));
  if (l.tailKind == 0) {
    for (unsigned i = 0; i < n; ++i) {
      std::size_t item = 12 + 2 * i;  // the byte after the offset holds the flag
      o.p[end - 1 - i] = static_cast<std::uint8_t>(item);
      o.p[t + item + 1] |= 1;
    }
  } else if (l.tailKind == 1) {
    for (std::size_t k = 0; k < 64; ++k) o.U16(t + 12 + 2 * k, static_cast<std::uint16_t>(rng.Next()));
    for (unsigned i = 0; i < n; ++i) {
      std::size_t item = 140 + 8 * i;
      o.U16(end - 2 * (i + 1), static_cast<std::uint16_t>(item));
      o.U16(t + item, static_cast<std::uint16_t>(rng.Next()));
      o.U16(t + item + 2, static_cast<std::uint16_t>(rng.Next() | 1));
      o.U16(t + item + 4, static_cast<std::uint16_t>(rng.Next()));
      o.U16(t + item + 6, static_cast<std::uint16_t>(rng.Next()));
    }
  } else {
    for (std::size_t k = 0; k < 256; ++k) o.U32(t + 12 + 4 * k, static_cast<std::uint32_t>(rng.Next()));
    for (unsigned i = 0; i < n; ++i) {
      std::size_t item = 1036 + 12 * i;
      o.U32(end - 4 * (i + 1), static_cast<std::uint32_t>(item));
      o.U32(t + item, static_cast<std::uint32_t>(rng.Next()));
      o.U32(t + item + 4, static_cast<std::uint32_t>(rng.Next() | 1));
      o.U16(t + item + 8, static_cast<std::uint16_t>(rng.Next()));
      o.U16(t + item + 10, static_cast<std::uint16_t>(rng.Next()));
    }
  }
}

}  // namespace

void PackNibbles(std::uint8_t* e, bool big) {
  if (!big) return;
  const unsigned b0 = e[0], b1 = e[1], b2 = e[2];
  auto join = [](unsigned high, unsigned low) { return static_cast<std::uint8_t>((high & 0xF) << 4 | (low & 0xF)); };
  e[0] = join(b1, b0 >> 4);
  e[1] = join(b0, b2 >> 4);
  e[2] = join(b2, b1 >> 4);
}

std::size_t VectorSize(const VectorShape& shape) { return MakeLayout(shape).size; }

void RenderVector(const Out& o, std::size_t off, const VectorShape& shape) {
  const Layout l = MakeLayout(shape);
  Rng rng(shape.seed ^ 0x5EC7ull);
  const Out v{o.p + off, l.size, o.big};
  v.Random(0, l.size, rng);
  v.U16(0, static_cast<std::uint16_t>(0x8B00 | shape.elementType));
  v.U16(4, static_cast<std::uint16_t>(rng.Next()));
  v.U16(6, static_cast<std::uint16_t>(rng.Next()));
  v.U32(8, static_cast<std::uint32_t>(rng.Next()));
  v.U32(12, static_cast<std::uint32_t>(l.tailOffset));
  v.U32(16, l.tail ? 1 + rng.Below(100) : 0);
  for (std::size_t k = 20; k < 64; k += 2) v.U16(k, static_cast<std::uint16_t>(rng.Next()));
  for (std::size_t k = 0; k < 64; ++k) v.U16(64 + 2 * k, 0);
  for (std::size_t i = 0; i < l.chunks.size(); ++i) {
    const Chunk& c = l.chunks[i];
    v.U16(64 + 2 * i, static_cast<std::uint16_t>((c.list ? 0x8000 : 0) | c.width << 13 | c.number));
    const std::size_t at = 128 * std::size_t{c.number} - 64;
    if (c.list) {
      v.U32(at, c.count);
      v.U32(at + 4, static_cast<std::uint32_t>(rng.Next()));
      const std::size_t size = ListEntrySize(shape.elementType, c.width);
      for (unsigned e = 0; e < c.count; ++e) RenderListEntry(v, at + 8 + e * size, shape.elementType, c.width, rng);
    } else {
      RenderFullChunk(v, at, shape.elementType, c.width, rng);
    }
  }
  if (l.tail) RenderTail(v, l.tailOffset, l, rng);
}

}  // namespace gendb
