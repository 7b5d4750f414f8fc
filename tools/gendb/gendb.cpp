#include "gendb.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>

#include "gendb_internal.h"
#include "platform.h"

namespace gendb {

Geometry GeometryFor(std::uint32_t sizeCode) {
  static const Geometry kTable[6] = {{2048, 0, 0, 0},       {4096, 30720, 16, 5},   {8192, 62464, 8, 2},
                                     {16384, 125952, 4, 1}, {32768, 252928, 2, 1}, {65536, 506880, 1, 1}};
  return kTable[sizeCode <= 5 ? sizeCode : 2];
}

namespace {

// Map areas and true map blocks, written as the ranges they are.
bool InMapArea(const Geometry& g, std::uint64_t b) {
  if (b == 2 || (b >= 5 && b <= 15)) return true;
  if (b >= g.bpm + 2ull && b < g.bpm + 2ull * (3 * (g.sat + g.cm) - 5)) return true;
  for (std::uint64_t k = 1;; ++k) {
    std::uint64_t base = k * g.cm * g.bpm + 2;
    if (b < base) return false;
    if (b < base + 6ull * g.cm) return true;
  }
}

bool IsTrueMap(const Geometry& g, std::uint64_t b) {
  if (b == 2 || (b >= g.bpm + 2ull && b <= g.bpm + std::uint64_t{g.cm})) return true;
  for (std::uint64_t k = 1;; ++k) {
    std::uint64_t base = k * g.cm * g.bpm + 2;
    if (b < base) return false;
    if (b < base + g.cm) return true;
  }
}

std::uint64_t MapBlockOf(const Geometry& g, std::uint64_t q) {
  if (q == 0) return 2;
  if (q < g.cm) return g.bpm + 1 + q;
  std::uint64_t r = q % g.cm;
  return (q - r) * g.bpm + 2 + r;
}

// Type codes that have no converter of their own.
std::uint8_t OtherTypeCode(Rng& rng) {
  static const std::uint8_t kCodes[] = {0, 1, 3, 4, 5, 7, 10, 11, 12, 16, 19, 20, 23, 25, 40, 65, 67, 71, 100, 127};
  return kCodes[rng.Below(sizeof kCodes)];
}

void RenderLabel(const Plan& plan, const Out& o, Rng& rng) {
  const Params& p = plan.p;
  o.Random(0, o.size, rng);
  o.U32(0, static_cast<std::uint32_t>(rng.Next()));
  o.U16(1024, static_cast<std::uint16_t>(rng.Next()));
  o.U16(1026, 1);  // first byte nonzero exactly when little-endian
  o.U16(1030, static_cast<std::uint16_t>(rng.Below(2)));
  for (std::size_t off : {1036, 1040, 1044, 1048, 1052}) o.U32(off, static_cast<std::uint32_t>(rng.Next()));
  std::uint16_t flags = static_cast<std::uint16_t>(rng.Next() & ~0x800u);
  if (!p.databaseKey.empty()) flags |= 0x800;
  o.U16(1056, flags);
  o.U16(1058, static_cast<std::uint16_t>(rng.Next()));
  o.U32(1064, plan.mapCount);
  o.U32(1068, static_cast<std::uint32_t>(rng.Next()));
  o.U16(1080, static_cast<std::uint16_t>(rng.Next()));
  o.U32(1096, static_cast<std::uint32_t>(rng.Next()));
  o.U32(1100, p.sizeCode);
  o.U32(1108, static_cast<std::uint32_t>(rng.Next()));
  o.U32(1112, p.lastBlock);
  o.U32(1116, plan.primaryLastBlock);
  o.U32(1120, static_cast<std::uint32_t>(rng.Next()));
  o.U32(1124, static_cast<std::uint32_t>(rng.Next()));
  o.U32(1128, plan.setFieldA);
  o.U32(1132, plan.setFieldB);
  o.U32(1136, static_cast<std::uint32_t>(rng.Next()));
  o.U32(1140, static_cast<std::uint32_t>(rng.Next()));
  o.U32(1144, plan.volumeInfoBlock);
  o.U16(1148, static_cast<std::uint16_t>(plan.furtherVolumes));

  const std::string& dir = p.managerDirectory;
  if (p.unicodeManagerDirectory) {
    std::size_t units = std::min<std::size_t>(dir.size(), 120);
    o.U16(1532, static_cast<std::uint16_t>(0x100 | units));
    for (std::size_t i = 0; i < units; ++i) o.U16(1534 + 2 * i, static_cast<std::uint16_t>(0x2000 | dir[i]));
  } else {
    std::size_t n = std::min<std::size_t>(dir.size(), 255);
    o.U16(1532, static_cast<std::uint16_t>(n));
    std::memcpy(o.p + 1534, dir.data(), n);
  }
  // Second text: 16-bit units when bit 15 is set, bytes otherwise.
  std::uint16_t units = static_cast<std::uint16_t>(1 + rng.Below(60));
  if (rng.Below(2)) {
    o.U16(1792, static_cast<std::uint16_t>(0x8000 | units));
    for (std::size_t i = 0; i < units; ++i) o.U16(1794 + 2 * i, static_cast<std::uint16_t>(rng.Next()));
  } else {
    o.U16(1792, units);
  }
  const std::string& id = p.keyId.empty() ? std::string("clear") : p.keyId;
  o.U16(1920, static_cast<std::uint16_t>(id.size()));
  std::memset(o.p + 1922, 0, 64);
  std::memcpy(o.p + 1922, id.data(), std::min<std::size_t>(id.size(), 64));
}

void RenderMap(const Plan& plan, std::uint32_t b, const Out& o, Rng& rng) {
  const Geometry& g = plan.g;
  o.Random(0, o.size, rng);
  o.p[4] = 0x1D;  // never the compressed bit unless compressed on purpose
  for (std::size_t off : {0, 28, 44, 48, 52, 56}) o.U32(off, static_cast<std::uint32_t>(rng.Next()));
  for (std::size_t off = 132; off < o.size; off += 4) o.U32(off, static_cast<std::uint32_t>(rng.Next()));
  if (!IsTrueMap(g, b)) return;
  o.p[40] = 'm';
  std::uint64_t q = plan.MapIndexOf(b);
  bool flagClear = plan.mapFlagClear[q];
  o.U32(28, flagClear ? 0u : 1u + rng.Below(1000));
  const std::size_t bitmap = 128 + 128 * (o.size / 4096);
  for (std::uint32_t w = 0; bitmap + 4 * w < o.size; ++w) {
    std::uint32_t word = 0;
    for (std::uint32_t bit = 0; bit < 32; ++bit) {
      std::uint64_t block = q * g.bpm + 32ull * w + bit + 1;
      bool free = block > plan.p.lastBlock ? true : plan.kind[block] == kFree;
      if (flagClear) free = (rng.Next() & 1) != 0;  // not consulted: anything goes
      if (free) word |= 1u << bit;
    }
    o.U32(bitmap + 4 * w, word);
  }
}

void RenderOther(const Out& o, Rng& rng) {
  o.Random(0, o.size, rng);
  o.U32(0, rng.Below(static_cast<std::uint32_t>(o.size - 28 + 1)));
  o.p[4] = OtherTypeCode(rng);
  RandomHeaderFields(o, rng);
}

void RenderBadOffset(const Out& o, Rng& rng) {
  o.Random(0, o.size, rng);
  std::memset(o.p, 0x7F, 4);  // far beyond any block, the same in both orders
  o.p[4] = rng.Below(2) ? std::uint8_t{kTypeData} : OtherTypeCode(rng);
}

void RenderLooseBig(const Out& o, Rng& rng) {
  o.Random(0, o.size, rng);
  o.p[4] = 24;
}

}  // namespace

void RandomHeaderFields(const Out& o, Rng& rng) {
  o.p[5] = rng.Byte();
  o.U16(6, static_cast<std::uint16_t>(rng.Next()));
  o.U32(8, static_cast<std::uint32_t>(rng.Next()));
  o.U32(12, static_cast<std::uint32_t>(rng.Next()));
  o.U32(16, static_cast<std::uint32_t>(rng.Next()));
  o.U16(20, static_cast<std::uint16_t>(rng.Next()));
  for (int i = 22; i < 28; ++i) o.p[i] = rng.Byte();
}

std::uint64_t Plan::MapIndexOf(std::uint64_t mapBlock) const {
  if (mapBlock == 2) return 0;
  if (mapBlock <= g.bpm + std::uint64_t{g.cm}) return mapBlock - g.bpm - 1;
  std::uint64_t k = (mapBlock - 2) / (std::uint64_t{g.cm} * g.bpm);
  return k * g.cm + (mapBlock - 2 - k * g.cm * g.bpm);
}

int Plan::CompressionFor(std::uint32_t b, Kind k) const {
  if (p.compressShare <= 0 || g.blockSize <= 4104 || p.methods.empty()) return 0;
  if (k != kMapArea && k != kOther && k != kData && k != kGdir && k != kPointer && k != kMirror && k != kBigRef)
    return 0;
  Rng rng = BlockRng(b, 7);
  if (rng.Unit() >= p.compressShare) return 0;
  const int method = p.methods[rng.Below(static_cast<std::uint32_t>(p.methods.size()))];
  return method == 4 && k != kOther ? 0 : method;  // "null" blocks stay compressed: header only
}

void Plan::StoreCompressed(std::uint8_t* image, std::uint32_t b, int method) const {
  const std::uint32_t bs = g.blockSize, limit = bs - 4104;
  const Out o{image, bs, p.bigEndian};
  std::uint32_t length = 1 + BlockRng(b, 8).Below(limit);
  if (method == 4) {
    o.U32(0, length);
  } else {
    if (p.converted) return;
    std::vector<std::uint8_t> stream(limit);
    length = static_cast<std::uint32_t>(CompressStream(method, image, bs, stream.data(), limit));
    if (length == 0) return;  // does not fit: stored plain
    std::memcpy(image + 8, stream.data(), length);
    o.U32(0, length);
  }
  image[4] |= 0x80;
  image[5] = static_cast<std::uint8_t>(method);
  if (stats != nullptr && !p.converted) ++stats->compressed[method];
}

Rng Plan::BlockRng(std::uint32_t b, std::uint64_t salt) const {
  return Rng(p.seed * 0x2545F4914F6CDD1Dull + b * 0x9E3779B97F4A7C15ull + salt);
}

namespace {

void PlanKinds(Plan& plan) {
  const Params& p = plan.p;
  const Geometry& g = plan.g;
  std::uint64_t maps = (p.lastBlock + std::uint64_t{g.bpm} - 1) / g.bpm;
  plan.mapCount = static_cast<std::uint32_t>(maps);
  plan.mapFlagClear.assign(maps + g.cm + 1, 0);
  Rng mapRng(p.seed ^ 0x6D61707321ull);
  for (auto& f : plan.mapFlagClear) f = mapRng.Unit() < p.clearFlagShare;

  const Mix& m = p.mix;
  const unsigned weights[] = {m.other, m.data, m.gdir, m.pointer, m.mirror, m.looseBig, m.badOffset};
  const Kind kinds[] = {kOther, kData, kGdir, kPointer, kMirror, kBigLoose, kBadOffset};
  unsigned total = 0;
  for (unsigned w : weights) total += w;
  if (total == 0) total = 1;

  plan.kind.assign(p.lastBlock + 1ull, kFree);
  for (std::uint64_t b = 1; b <= p.lastBlock; ++b) {
    Kind& k = plan.kind[b];
    if (b == 1) {
      k = kLabel;
    } else if (InMapArea(g, b)) {
      k = kMapArea;
    } else {
      Rng rng = plan.BlockRng(static_cast<std::uint32_t>(b), 1);
      bool flagClear = plan.mapFlagClear[(b - 1) / g.bpm];
      if (!flagClear && rng.Unit() < p.freeShare) {
        k = kFree;
        continue;
      }
      unsigned pick = rng.Below(total), acc = 0;
      k = kOther;
      for (std::size_t i = 0; i < sizeof weights / sizeof weights[0]; ++i) {
        acc += weights[i];
        if (pick < acc) {
          k = kinds[i];
          break;
        }
      }
    }
  }
}

}  // namespace

namespace {

std::string MainDirectory(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  return slash == std::string::npos ? "./" : path.substr(0, slash + 1);
}

std::string VolumeDirectory(const Params& p, const std::string& path, std::size_t volume) {
  const VolumeSetParams& vs = p.volumeSet;
  const unsigned k = volume - 1 < vs.placement.size() ? vs.placement[volume - 1] : 0;
  if (k == 0 || k > vs.directories.size()) return MainDirectory(path);
  const std::string& dir = vs.directories[k - 1];
  return dir[0] == '/' ? dir : MainDirectory(path) + dir;
}

std::string WriteMarkers(const Params& p, const std::string& path) {
  const std::string primary = platform::FullPathName(MainDirectory(path), 4096) + "\n";
  for (const std::string& dir : p.volumeSet.directories) {
    const std::string marker = (dir[0] == '/' ? dir : MainDirectory(path) + dir) + "orva.dbdir";
    platform::File f = platform::CreateReadWrite(marker);
    if (f == platform::kInvalidFile) return "cannot create " + marker;
    platform::WriteAt(f, primary.data(), primary.size(), 0);
    platform::Close(f);
  }
  return "";
}

// Splits the blocks evenly over the volumes; no volume starts on a map area block.
void PlanVolumes(Plan& plan) {
  const unsigned n = plan.p.volumeSet.volumes;
  plan.volumeFirst = {1};
  if (n == 0) return;
  const std::uint32_t share = plan.p.lastBlock / (n + 1);
  for (unsigned v = 1; v <= n; ++v) {
    std::uint32_t first = std::max(v * share + 1, plan.volumeFirst.back() + 2);
    while (InMapArea(plan.g, first)) ++first;
    plan.volumeFirst.push_back(first);
  }
  plan.furtherVolumes = n;
  plan.primaryLastBlock = plan.volumeFirst[1] - 1;
  plan.volumeInfoBlock = plan.p.volumeSet.volumeInfoBlock;
}

}  // namespace

std::vector<std::string> DatabaseFiles(const Params& params, const std::string& path) {
  std::vector<std::string> files = {path};
  for (unsigned v = 1; v <= params.volumeSet.volumes; ++v) {
    char name[16];
    std::snprintf(name, sizeof name, "ORVA-%04u.VOL", v);
    files.push_back(VolumeDirectory(params, path, v) + name);
  }
  return files;
}

std::size_t Plan::VolumeOf(std::uint32_t b) const {
  std::size_t v = volumeFirst.size() - 1;
  while (v > 0 && b < volumeFirst[v]) --v;
  return v;
}

std::string GenerateDatabase(const Params& params, const std::string& path, Stats* stats) {
  if (params.sizeCode < 1 || params.sizeCode > 5) return "block size code must be 1 to 5";
  Plan plan;
  plan.p = params;
  plan.g = GeometryFor(params.sizeCode);
  plan.stats = stats;
  // The last block must not fall short of the map that governs it.
  std::uint64_t q = (params.lastBlock - 1ull) / plan.g.bpm;
  if (params.lastBlock < 3) plan.p.lastBlock = 3;
  if (MapBlockOf(plan.g, q) > plan.p.lastBlock) plan.p.lastBlock = static_cast<std::uint32_t>(MapBlockOf(plan.g, q));
  plan.primaryLastBlock = plan.p.lastBlock;
  Rng ids(params.seed ^ 0x1D5ull);
  plan.setFieldA = static_cast<std::uint32_t>(ids.Next());
  plan.setFieldB = static_cast<std::uint32_t>(ids.Next());
  plan.checkpoint = static_cast<std::uint32_t>(ids.Next());
  PlanVolumes(plan);
  // Each volume holds a block at least: a volume starting past the last block would have a
  // size below zero, taken for one of nearly 2^32 blocks.
  if (plan.volumeFirst.back() > plan.p.lastBlock) return "too few blocks for the volumes asked";
  PlanKinds(plan);
  for (std::size_t v = 1; v < plan.volumeFirst.size(); ++v) plan.kind[plan.volumeFirst[v]] = kVolInfo;
  if (plan.furtherVolumes > 0) plan.kind[plan.volumeInfoBlock] = kVolInfo;
  PlanReferences(plan);

  const std::vector<std::string> paths = DatabaseFiles(plan.p, path);
  std::vector<platform::File> files;
  std::string error;
  const std::uint32_t bs = plan.g.blockSize;
  for (std::size_t v = 0; v < paths.size(); ++v) {
    files.push_back(platform::CreateReadWrite(paths[v]));
    if (files.back() == platform::kInvalidFile) return "cannot create " + paths[v];
    const std::uint32_t last = v + 1 < paths.size() ? plan.volumeFirst[v + 1] - 1 : plan.p.lastBlock;
    if (!platform::SetFileSize(files.back(), std::uint64_t{last - plan.volumeFirst[v] + 1} * bs))
      error = "cannot size " + paths[v];
  }
  auto write = [&](std::uint32_t b, const std::uint8_t* image) {
    const std::size_t v = plan.VolumeOf(b);
    if (platform::WriteAt(files[v], image, bs, std::uint64_t{b - plan.volumeFirst[v]} * bs) != bs)
      error = "cannot write " + paths[v];
  };
  std::unique_ptr<std::uint8_t[]> buffer(new std::uint8_t[bs]);
  for (std::uint32_t b = 1; error.empty() && b <= plan.p.lastBlock; ++b) {
    Kind k = plan.kind[b];
    if ((k == kFree && plan.p.sparse) || k == kBigRef) continue;  // big strings come with their owner
    Out o{buffer.get(), bs, plan.p.bigEndian};
    Rng rng = plan.BlockRng(b, 2);
    const int method = plan.CompressionFor(b, k);
    rng.lowEntropy = method != 0;
    switch (k) {
      case kLabel: RenderLabel(plan, o, rng); break;
      case kMapArea: RenderMap(plan, b, o, rng); break;
      case kOther: RenderOther(o, rng); break;
      case kBadOffset: RenderBadOffset(o, rng); break;
      case kBigLoose: RenderLooseBig(o, rng); break;
      case kData: RenderDataBlock(plan, b, o, rng); break;
      case kGdir: RenderGdirBlock(o, rng); break;
      case kPointer: RenderPointerBlock(o, rng); break;
      case kMirror: RenderMirrorBlock(plan, o, rng); break;
      case kVolInfo: RenderVolumeInfo(plan, b == plan.volumeInfoBlock ? 0 : plan.VolumeOf(b), o, rng); break;
      default: o.Random(0, bs, rng); break;  // free: garbage nobody reads
    }
    if (method != 0) plan.StoreCompressed(buffer.get(), b, method);
    if (!plan.p.databaseKey.empty() && k != kLabel && k != kVolInfo) EncryptBlock(plan.p.databaseKey, buffer.get(), bs, b);
    write(b, buffer.get());
  }
  for (auto& [b, image] : plan.bigBlocks) {
    if (!error.empty()) break;
    if (!plan.p.databaseKey.empty()) EncryptBlock(plan.p.databaseKey, image.data(), bs, b);
    write(b, image.data());
  }
  for (platform::File f : files) platform::Close(f);
  if (error.empty() && plan.p.volumeSet.markers) error = WriteMarkers(plan.p, path);
  return error;
}

std::string CompareFiles(const std::string& a, const std::string& b, std::uint32_t blockSize) {
  platform::File fa = platform::OpenReadOnly(a), fb = platform::OpenReadOnly(b);
  std::string result;
  if (fa == platform::kInvalidFile || fb == platform::kInvalidFile) result = "cannot open both files";
  if (result.empty() && platform::FileSize(fa) != platform::FileSize(fb)) result = "sizes differ";
  // Compare every data extent of either file against the other.
  for (int pass = 0; pass < 2 && result.empty(); ++pass) {
    platform::File x = pass == 0 ? fa : fb, y = pass == 0 ? fb : fa;
    std::vector<std::uint8_t> bx(1 << 20), by(1 << 20);
    std::int64_t pos = platform::NextData(x, 0);
    while (pos >= 0 && result.empty()) {
      std::int64_t hole = platform::NextHole(x, static_cast<std::uint64_t>(pos));
      while (pos < hole && result.empty()) {
        std::size_t n = static_cast<std::size_t>(std::min<std::int64_t>(hole - pos, static_cast<std::int64_t>(bx.size())));
        std::int64_t rx = platform::ReadAt(x, bx.data(), n, static_cast<std::uint64_t>(pos));
        std::int64_t ry = platform::ReadAt(y, by.data(), n, static_cast<std::uint64_t>(pos));
        if (rx != ry) {
          result = "short read";
          break;
        }
        for (std::int64_t i = 0; i < rx; ++i) {
          if (bx[static_cast<std::size_t>(i)] != by[static_cast<std::size_t>(i)]) {
            std::uint64_t at = static_cast<std::uint64_t>(pos + i);
            result = "differ in block " + std::to_string(at / blockSize + 1) + " at offset " +
                     std::to_string(at % blockSize);
            break;
          }
        }
        pos += rx;
        if (rx == 0) break;
      }
      pos = platform::NextData(x, static_cast<std::uint64_t>(hole));
    }
  }
  platform::Close(fa);
  platform::Close(fb);
  return result;
}

}  // namespace gendb
