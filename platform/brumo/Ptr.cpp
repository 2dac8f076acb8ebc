#include "platform/brumo/Ptr.h"

namespace Brumo {

std::atomic<bool> ThreadControl::multiThreaded_{false};

std::array<Recycled::SizeClass, Recycled::kClasses> Recycled::classes_;

}  // namespace Brumo
