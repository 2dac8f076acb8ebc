// The framework's string.
#pragma once

#include <string>

namespace Brumo {

using String = std::string;

}  // namespace Brumo
