// Block bodies of the generator: data, GDIR, pointer and mirror info blocks, big strings and
// big vectors.
#include "gendb_internal.h"

namespace gendb {

void PlanReferences(Plan&) {}
void RenderDataBlock(const Plan&, std::uint32_t, const Out& o, Rng& rng) { o.Random(0, o.size, rng); }
void RenderGdirBlock(const Out& o, Rng& rng) { o.Random(0, o.size, rng); }
void RenderPointerBlock(const Out& o, Rng& rng) { o.Random(0, o.size, rng); }
void RenderMirrorBlock(const Plan&, const Out& o, Rng& rng) { o.Random(0, o.size, rng); }

}  // namespace gendb
