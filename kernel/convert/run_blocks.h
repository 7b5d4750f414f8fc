// The blocks that converters reach out of turn (other_blocks.h), over the run's volume files.
#pragma once

#include "other_blocks.h"

namespace bt {

OtherBlocks& RunBlocks();

}  // namespace bt
