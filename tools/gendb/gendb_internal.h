// The generator's plan of a database and the renderers of each block kind.
#pragma once

#include <map>
#include <vector>

#include "gendb.h"

namespace gendb {

enum Kind : std::uint8_t {
  kFree, kLabel, kMapArea, kOther, kData, kGdir, kPointer, kMirror, kBigRef, kBigLoose, kBadOffset, kVolInfo
};

enum : std::uint8_t { kTypeData = 8, kTypeGdir = 9, kTypeMirror = 17, kTypeBig = 24 };
inline constexpr std::uint8_t kOrdermarkBig = 0xAA, kOrdermarkLittle = 0xBB;

// Vector images: the size a vector of this shape needs, and its rendering into o from off.
struct VectorShape {
  unsigned elementType;  // 0..4
  bool inlineSized;      // small enough for a node
  std::uint64_t seed;
};

struct Plan {
  Params p;
  Geometry g;
  std::vector<Kind> kind;               // by block number
  std::vector<std::uint8_t> mapFlagClear;  // by map index
  std::uint32_t mapCount = 0;
  std::uint32_t primaryLastBlock = 0;
  std::uint32_t volumeInfoBlock = 0;
  std::uint32_t furtherVolumes = 0;
  std::uint32_t setFieldA = 0, setFieldB = 0, checkpoint = 0;
  std::vector<std::uint32_t> volumeFirst;  // first block of volume v; volumeFirst[0] = 1

  // The volume holding block b.
  std::size_t VolumeOf(std::uint32_t b) const;
  // Nodes of data blocks that reference big strings (codes 4, 5, 6) or a big vector (code 14),
  // by the data block that holds them.
  struct BigRef {
    std::uint8_t code;
    std::vector<std::uint32_t> blocks;
    VectorShape shape;  // code 14
  };
  std::map<std::uint32_t, std::vector<BigRef>> bigRefs;
  // Finished images of big string blocks, written after the ordinary blocks.
  mutable std::map<std::uint32_t, std::vector<std::uint8_t>> bigBlocks;

  Stats* stats = nullptr;

  std::uint64_t MapIndexOf(std::uint64_t mapBlock) const;
  // Method (1..5) block b of kind k is stored compressed with, 0 for none.
  int CompressionFor(std::uint32_t b, Kind k) const;
  // The source gets the compressed envelope of the plain image; the twin what a conversion
  // leaves of it (the plain image, or the envelope itself for "null", which never decompresses).
  void StoreCompressed(std::uint8_t* image, std::uint32_t b, int method) const;
  // The order the source database is written in (the twin of a conversion is the other one).
  bool SourceBig() const { return p.converted ? !p.bigEndian : p.bigEndian; }
  Rng BlockRng(std::uint32_t b, std::uint64_t salt) const;
};

void RandomHeaderFields(const Out& o, Rng& rng);

std::size_t VectorSize(const VectorShape& shape);
void RenderVector(const Out& o, std::size_t off, const VectorShape& shape);

// Three packed bytes of a 4-byte list entry, from their little-endian form.
void PackNibbles(std::uint8_t* e, bool big);
void PlanReferences(Plan& plan);
void RenderDataBlock(const Plan& plan, std::uint32_t b, const Out& o, Rng& rng);
void RenderGdirBlock(const Out& o, Rng& rng);
void RenderPointerBlock(const Out& o, Rng& rng);
void RenderMirrorBlock(const Plan& plan, const Out& o, Rng& rng);
void RenderVolumeInfo(const Plan& plan, std::size_t volume, const Out& o, Rng& rng);

}  // namespace gendb
