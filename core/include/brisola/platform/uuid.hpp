#pragma once

#include <string>

namespace brisola {

// A fresh random UUID in its 36-character text form with upper-case hexadecimal digits,
// for example 0F3E5A8C-1B2D-4E6F-8A9B-C0D1E2F3A4B5.
std::string makeUUIDString();

}  // namespace brisola
