// The direct store: every write goes to its file at once (BYTETURN_JOURNAL=off; and every read
// before a command chooses its store).
#pragma once

#include "store.h"

namespace bt {

Store& DirectStore();

}  // namespace bt
