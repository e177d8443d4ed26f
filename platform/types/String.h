#pragma once
// String: the platform's text type. Value types give their text forms as String.

#include <string>

namespace Calyx {

using String = std::string;

}  // namespace Calyx
