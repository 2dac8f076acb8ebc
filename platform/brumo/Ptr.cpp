#include "platform/brumo/Ptr.h"

namespace Brumo {

std::atomic<bool> ThreadControl::multiThreaded_{false};

}  // namespace Brumo
