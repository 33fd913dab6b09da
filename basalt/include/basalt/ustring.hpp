#pragma once
/// \file
/// The text type of the platform layer.

#include <string>

namespace basalt {

/// UTF-16 text. All model text is held in this form; `std::string` texts are UTF-8.
using ustring = std::u16string;

} // namespace basalt
