// Block bodies for the generator: data, GDIR, pointer and mirror info blocks, and the big string
// and big vector blocks that data nodes reference.
#include <algorithm>
#include <cstring>

#include "gendb_internal.h"

namespace gendb {

namespace {

constexpr std::uint32_t kType2Record = 0x80000000u;

// The data area of a block being filled: nodes are appended while they fit.
struct Area {
  const Out& o;
  std::size_t pos = 28;
  bool Fits(std::size_t length) const { return pos + length <= o.size; }
};

// Pad that puts the value's first byte after the type byte at a multiple of 4 from the node start.
std::uint32_t AlignedPad(std::uint32_t keyLength) { return (3 - keyLength % 4) % 4; }

std::uint32_t DataNodeWord(std::uint32_t length, std::uint32_t keyLength, std::uint32_t pad, bool typed, Rng& rng) {
  return (typed ? kType2Record : 0) | keyLength << 22 | (static_cast<std::uint32_t>(rng.Next()) & 0x3FE000) |
         length | pad;
}

void RenderBigString(const Plan& plan, std::uint32_t b, bool unicode, bool big) {
  auto& image = plan.bigBlocks[b];
  if (!image.empty()) return;  // referenced before: the same block
  const std::uint32_t bs = plan.g.blockSize;
  image.resize(bs);
  Rng rng = plan.BlockRng(b, 5);
  const int method = plan.CompressionFor(b, kBigRef);
  rng.lowEntropy = method != 0;
  Out o{image.data(), bs, big};
  o.Random(0, bs, rng);
  o.U32(0, rng.Below(bs - 28 + 1));
  o.p[4] = kTypeBig;
  RandomHeaderFields(o, rng);
  o.p[24] = big ? kOrdermarkBig : kOrdermarkLittle;
  if (unicode)
    for (std::size_t off = 28; off < bs; off += 2) o.U16(off, static_cast<std::uint16_t>(rng.Next()));
  if (method != 0) plan.StoreCompressed(image.data(), b, method);
  if (plan.stats != nullptr && !plan.p.converted) ++plan.stats->bigStrings;
}

void RenderBigVector(const Plan& plan, const std::vector<std::uint32_t>& blocks, const VectorShape& shape, bool big) {
  const std::uint32_t bs = plan.g.blockSize, capacity = bs - 28;
  std::vector<std::uint8_t> vector(capacity * blocks.size());
  Rng fill(shape.seed ^ 0xF111ull);
  Out v{vector.data(), vector.size(), big};
  v.Random(0, vector.size(), fill);
  RenderVector(v, 0, shape);  // planned to fit
  if (plan.stats != nullptr && !plan.p.converted) ++plan.stats->bigVectors;
  for (std::size_t i = 0; i < blocks.size(); ++i) {
    auto& image = plan.bigBlocks[blocks[i]];
    image.resize(bs);
    Rng rng = plan.BlockRng(blocks[i], 6);
    Out o{image.data(), bs, big};
    o.Random(0, 28, rng);
    o.U32(0, rng.Below(capacity + 1));
    o.p[4] = kTypeBig;
    RandomHeaderFields(o, rng);
    std::memcpy(image.data() + 28, vector.data() + capacity * i, capacity);
  }
}

// A node referencing big string blocks (codes 4, 5, 6) or a big vector (code 14).
std::size_t BigRefNode(const Plan& plan, const Plan::BigRef& ref, Area& a, Rng& rng) {
  const std::uint32_t keyLength = rng.Below(12), pad = AlignedPad(keyLength);
  const std::uint32_t length = 4 + keyLength + pad + 1 + 4 + 4 * static_cast<std::uint32_t>(ref.blocks.size());
  if (!a.Fits(length)) return 0;
  const Out& o = a.o;
  const std::size_t p4 = a.pos, p = p4 + 4 + keyLength + pad;
  o.U32(p4, DataNodeWord(length, keyLength, pad, true, rng));
  o.p[p] = ref.code;
  o.U32(p + 1, static_cast<std::uint32_t>(rng.Next()));
  for (std::size_t i = 0; i < ref.blocks.size(); ++i) o.U32(p + 5 + 4 * i, ref.blocks[i]);
  if (ref.code == 14)
    RenderBigVector(plan, ref.blocks, ref.shape, o.big);
  else
    for (std::uint32_t b : ref.blocks) RenderBigString(plan, b, ref.code == 5, o.big);
  return length;
}

// A node with a typed value of the given data type code, or an untyped one (code 255).
std::size_t TypedNode(std::uint8_t code, Area& a, Rng& rng, std::uint64_t vectorSeed) {
  const Out& o = a.o;
  std::uint32_t keyLength = rng.Below(24), pad = rng.Below(4);
  const VectorShape shape{rng.Below(5), true, vectorSeed};
  std::size_t value = 0;  // bytes after the type byte
  switch (code) {
    case 0:
    case 2:
      pad = AlignedPad(keyLength);
      value = 4 * (1 + rng.Below(10));
      break;
    case 1: value = 9 + rng.Below(6); break;
    case 8: value = 8 + rng.Below(6); break;
    case 13: value = VectorSize(shape); break;
    default: value = rng.Below(30); break;
  }
  std::size_t length = (4 + keyLength + pad + (code == 255 ? 0 : 1) + value + 3) / 4 * 4;
  if (length > 0x1FFC || !a.Fits(length)) return 0;
  const std::size_t p4 = a.pos, p = p4 + 4 + keyLength + pad;
  o.U32(p4, DataNodeWord(static_cast<std::uint32_t>(length), keyLength, pad, code != 255, rng));
  if (code == 255) return length;
  o.p[p] = code;
  switch (code) {
    case 0:
      for (std::size_t x = p + 1; x < p4 + length; x += 4) o.U32(x, static_cast<std::uint32_t>(rng.Next()));
      break;
    case 2:
      for (std::size_t x = p + 1; x < p4 + length; x += 2) o.U16(x, static_cast<std::uint16_t>(rng.Next()));
      break;
    case 1: o.U64(p + 2, rng.Next()); break;
    case 8: o.U64(p + 1, rng.Next()); break;
    case 13: RenderVector(o, p + 1, shape); break;
    default: break;
  }
  return length;
}

}  // namespace

void PlanReferences(Plan& plan) {
  std::vector<std::uint32_t> pool;  // ordinary blocks that may become big string blocks
  for (std::uint32_t b = 1; b <= plan.p.lastBlock; ++b)
    if (plan.kind[b] == kOther) pool.push_back(b);
  Rng rng(plan.p.seed ^ 0xB16ull);
  std::vector<std::pair<std::uint32_t, bool>> strings;  // referenced big strings, unicode or not
  auto take = [&]() -> std::uint32_t {
    if (pool.empty()) return 0;
    std::size_t i = rng.Below(static_cast<std::uint32_t>(pool.size()));
    std::uint32_t b = pool[i];
    pool[i] = pool.back();
    pool.pop_back();
    plan.kind[b] = kBigRef;
    return b;
  };
  for (std::uint32_t owner = 1; owner <= plan.p.lastBlock; ++owner) {
    if (plan.kind[owner] != kData || rng.Unit() >= plan.p.bigRefShare) continue;
    auto& refs = plan.bigRefs[owner];
    for (unsigned r = 1 + rng.Below(3); r > 0; --r) {
      Plan::BigRef ref{static_cast<std::uint8_t>(4 + rng.Below(3)), {}, {}};
      if (rng.Below(4) == 0) ref.code = 14;
      unsigned count = rng.Below(4);
      if (ref.code == 14) {
        ref.shape = VectorShape{rng.Below(5), false, rng.Next()};
        const std::size_t capacity = plan.g.blockSize - 28;
        count = static_cast<unsigned>((VectorSize(ref.shape) + capacity - 1) / capacity + rng.Below(2));
      }
      for (unsigned i = 0; i < count; ++i) {
        const bool unicode = ref.code == 5;
        std::uint32_t b = 0;
        if (ref.code != 14 && rng.Unit() < plan.p.sharedBigShare) {
          for (const auto& [s, u] : strings)
            if (u == unicode && rng.Below(3) == 0) b = s;
        }
        if (b == 0) b = take();
        if (b == 0) break;
        if (ref.code != 14) strings.emplace_back(b, unicode);
        ref.blocks.push_back(b);
      }
      if (ref.code == 14 && ref.blocks.size() < count) {  // too few blocks left: give them back
        for (std::uint32_t b : ref.blocks) plan.kind[b] = kOther;
        continue;
      }
      refs.push_back(ref);
    }
  }
}

void RenderDataBlock(const Plan& plan, std::uint32_t b, const Out& o, Rng& rng) {
  o.Random(0, o.size, rng);
  o.p[4] = kTypeData;
  RandomHeaderFields(o, rng);
  Area a{o};
  auto refs = plan.bigRefs.find(b);
  if (refs != plan.bigRefs.end())
    for (const auto& ref : refs->second) a.pos += BigRefNode(plan, ref, a, rng);
  static const std::uint8_t kCodes[] = {0, 1, 2, 3, 7, 8, 13, 255, 255, 0, 2};
  for (unsigned tries = 0; tries < 4;) {
    std::size_t used = TypedNode(kCodes[rng.Below(sizeof kCodes)], a, rng, plan.p.seed * 977 + b * 13 + a.pos);
    if (used == 0)
      ++tries;
    else
      a.pos += used;
  }
  o.U32(0, static_cast<std::uint32_t>(a.pos - 28));
}

void RenderGdirBlock(const Out& o, Rng& rng) {
  o.Random(0, o.size, rng);
  o.p[4] = kTypeGdir;
  RandomHeaderFields(o, rng);
  Area a{o};
  for (;;) {
    const std::uint32_t keyLength = rng.Below(40), pad = rng.Below(4);
    const std::size_t q = 4 + keyLength + 3 + pad;
    const std::size_t length = (q + 8 + rng.Below(8) + 3) / 4 * 4;
    if (!a.Fits(length)) break;
    o.U32(a.pos, DataNodeWord(static_cast<std::uint32_t>(length), keyLength, pad, false, rng));
    o.U32(a.pos + q, static_cast<std::uint32_t>(rng.Next()));
    o.U32(a.pos + q + 4, static_cast<std::uint32_t>(rng.Next()));
    a.pos += length;
  }
  o.U32(0, static_cast<std::uint32_t>(a.pos - 28));
}

void RenderPointerBlock(const Out& o, Rng& rng) {
  static const std::uint8_t kCodes[] = {2, 6, 66, 70};
  o.Random(0, o.size, rng);
  o.p[4] = kCodes[rng.Below(4)];
  RandomHeaderFields(o, rng);
  Area a{o};
  for (;;) {
    static const std::uint32_t kValueLengths[] = {2, 3, 4, 4, 3, 0, 1, 5, 6};
    const bool type1 = rng.Below(2) == 0;
    const std::uint32_t valueLength = kValueLengths[rng.Below(9)];
    const std::uint32_t keyLength = rng.Below(type1 ? 60 : 40);
    const std::uint32_t pad = (4 - (4 + keyLength + valueLength) % 4) % 4;
    const std::uint32_t length = 4 + keyLength + pad + valueLength;
    if (!a.Fits(length)) break;
    const std::uint32_t noise = static_cast<std::uint32_t>(rng.Next());
    const std::uint32_t word = type1 ? 0x80000000u | keyLength << 22 | (noise & 0x3FFC00) | length | pad
                                     : keyLength << 12 | (noise & 0x7FFC0FC0) | length | pad;
    o.U32(a.pos, word);
    const std::size_t p = a.pos + 4 + keyLength + pad;
    const std::uint32_t block = static_cast<std::uint32_t>(rng.Next());
    if (valueLength == 2) o.U16(p, static_cast<std::uint16_t>(block));
    if (valueLength == 3)
      for (int i = 0; i < 3; ++i) o.p[p + (o.big ? 2 - i : i)] = static_cast<std::uint8_t>(block >> (8 * i));
    if (valueLength == 4) o.U32(p, block);
    a.pos += length;
  }
  o.U32(0, static_cast<std::uint32_t>(a.pos - 28));
}

void RenderMirrorBlock(const Plan& plan, const Out& o, Rng& rng) {
  o.Random(0, o.size, rng);
  o.p[4] = kTypeMirror;
  const bool version1 = rng.Unit() < plan.p.mirrorV1Share;
  const bool moved = version1 && !plan.SourceBig() && rng.Below(2) == 0;
  const bool upgraded = plan.p.converted;  // the twin of a conversion holds version 2
  const std::uint64_t v40 = rng.Next() >> 1;
  const std::uint32_t v36 = static_cast<std::uint32_t>(rng.Next());
  o.U32(32, version1 && !upgraded ? 1 : 2);
  o.U32(36, v36);
  o.U64(40, v40);
  o.U64(48, rng.Next());
  o.U32(820, static_cast<std::uint32_t>(rng.Next()));

  // The 80 bytes that version 2 keeps at 864 (fields at 864, 872, 876, 880, 888, 892, 896).
  std::uint64_t r864 = rng.Next(), r880 = rng.Next(), r896 = rng.Next();
  std::uint32_t r872 = static_cast<std::uint32_t>(rng.Next()), r876 = static_cast<std::uint32_t>(rng.Next());
  std::uint32_t r888 = static_cast<std::uint32_t>(rng.Next()), r892 = static_cast<std::uint32_t>(rng.Next());
  std::uint8_t carried[40];
  for (auto& c : carried) c = rng.Byte();
  if (moved) {
    r892 = 1 + rng.Below(1000);  // read as N at 888 in the version 1 layout
    r896 = v40 + 1;              // read as X at 892
  } else if (version1 && !plan.SourceBig()) {
    r888 = 0;  // a version 2 layout whose version was 1: only the number is raised
  }
  const std::size_t base = moved && !upgraded ? 860 : 864;
  o.U64(base, r864);
  o.U32(base + 8, r872);
  o.U32(base + 12, r876);
  o.U64(base + 16, r880);
  o.U32(base + 24, r888);
  o.U32(base + 28, r892);
  o.U64(base + 32, r896);
  std::memcpy(o.p + base + 40, carried, sizeof carried);
  if (moved && upgraded) {
    // The move leaves at 860 the four bytes that were there: the start of the moved field as
    // the little-endian source held it.
    Out little{o.p, o.size, false};
    little.U32(860, static_cast<std::uint32_t>(r864));
  }
}

}  // namespace gendb

namespace gendb {

void RenderVolumeInfo(const Plan& plan, std::size_t volume, const Out& o, Rng& rng) {
  o.Random(0, o.size, rng);
  o.p[4] = 18;
  const std::uint64_t first = plan.volumeFirst[volume];
  const std::uint64_t next = volume + 1 < plan.volumeFirst.size() ? plan.volumeFirst[volume + 1] : plan.p.lastBlock + 1ull;
  o.U32(32, static_cast<std::uint32_t>(rng.Next()));
  o.U32(36, static_cast<std::uint32_t>(volume));
  o.U32(40, plan.checkpoint);
  o.U32(44, static_cast<std::uint32_t>(rng.Next()));
  o.U32(48, plan.setFieldA);
  o.U32(52, plan.setFieldB);
  o.U64(56, first);
  o.U64(64, volume == 0 ? rng.Next() : next);  // not consulted in the primary volume
  o.U64(72, rng.Next());
  o.U32(80, static_cast<std::uint32_t>(rng.Next()));
  if (volume != 0) return;
  // The stored directory list: 8-bit entries padded to even lengths; past the twentieth, a
  // 16-bit entry and a terminator that only the conversion reads.
  const auto& list = plan.p.volumeSet.storedList;
  std::size_t cursor = 1028;
  for (const std::string& dir : list) {
    o.U16(cursor, static_cast<std::uint16_t>(dir.size()));
    std::memcpy(o.p + cursor + 2, dir.data(), dir.size());
    cursor += 2 + (dir.size() + 1) / 2 * 2;
  }
  if (list.size() > 20) {
    o.U16(cursor, 0x8003);
    for (int i = 0; i < 3; ++i) o.U16(cursor + 2 + 2 * i, static_cast<std::uint16_t>(rng.Next()));
    o.U16(cursor + 8, 0);
    cursor += 16;
  }
  o.U32(1024, static_cast<std::uint32_t>(cursor - 1028));
}

}  // namespace gendb
