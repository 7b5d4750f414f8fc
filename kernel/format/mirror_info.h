// Mirror info block (type 17): its own layout, converted whole, version 1 raised to version 2.
#pragma once

#include "byteorder.h"

namespace bt {

void CvMirInfo(Bytes block);

}  // namespace bt
