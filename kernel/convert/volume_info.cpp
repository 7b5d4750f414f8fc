#include "volume_info.h"

namespace bt {

void CvVolInfo(Bytes, std::int32_t) {}

}  // namespace bt
