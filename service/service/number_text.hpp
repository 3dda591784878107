#pragma once

#include <string>

namespace brisola {

// The shortest decimal text that reads back as the same value, written the way the platform's
// standard number description writes it: always with a fraction part for ordinary values
// (1.0, 0.5, 1.25) and in exponent form below 1e-4 or from 1e16 on (1e-05, 1e+16).
std::string shortestText(double value);
std::string shortestText(float value);

}  // namespace brisola
