// The generator's plan of a database and the renderers of each block kind.
#pragma once

#include <map>
#include <vector>

#include "gendb.h"

namespace gendb {

enum Kind : std::uint8_t {
  kFree, kLabel, kMapArea, kOther, kData, kGdir, kPointer, kMirror, kBigRef, kBigLoose, kBadOffset, kVolInfo
};

inline constexpr std::uint8_t kData8 = 8;
inline constexpr std::uint8_t kDataType = 8;
enum : std::uint8_t { kTypeData = 8, kTypeGdir = 9, kTypeMirror = 17, kTypeBig = 24 };
inline constexpr std::uint8_t kOrdermarkBig = 0xAA, kOrdermarkLittle = 0xBB;

struct Plan {
  Params p;
  Geometry g;
  std::vector<Kind> kind;               // by block number
  std::vector<std::uint8_t> mapFlagClear;  // by map index
  std::uint32_t mapCount = 0;
  std::uint32_t primaryLastBlock = 0;
  std::uint32_t volumeInfoBlock = 0;
  std::uint32_t furtherVolumes = 0;
  std::uint32_t setFieldA = 0, setFieldB = 0;
  // Blocks reserved as big strings and big vector parts, by the data block that owns them.
  std::map<std::uint32_t, std::vector<std::uint32_t>> bigPool;
  // Finished images of big string blocks, written after the ordinary blocks.
  mutable std::map<std::uint32_t, std::vector<std::uint8_t>> bigBlocks;

  std::uint64_t MapIndexOf(std::uint64_t mapBlock) const;
  Rng BlockRng(std::uint32_t b, std::uint64_t salt) const;
};

void RandomHeaderFields(const Out& o, Rng& rng);
void PlanReferences(Plan& plan);
void RenderDataBlock(const Plan& plan, std::uint32_t b, const Out& o, Rng& rng);
void RenderGdirBlock(const Out& o, Rng& rng);
void RenderPointerBlock(const Out& o, Rng& rng);
void RenderMirrorBlock(const Plan& plan, const Out& o, Rng& rng);

}  // namespace gendb
