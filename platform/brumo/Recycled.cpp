#include "platform/brumo/Recycled.h"

namespace Brumo {

std::array<Recycled::SizeClass, Recycled::kClasses> Recycled::classes_;

}  // namespace Brumo
