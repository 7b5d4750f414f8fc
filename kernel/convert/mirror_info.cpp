#include "mirror_info.h"

namespace bt {

void CvMirInfo(Bytes) {}

}  // namespace bt
