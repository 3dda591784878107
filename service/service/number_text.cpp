#include "service/number_text.hpp"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdlib>

namespace brisola {

namespace {

template <class T>
std::string describe(T value) {
  if (std::isnan(value)) return "nan";
  if (std::isinf(value)) return value < 0 ? "-inf" : "inf";
  // Shortest round-trip digits in scientific form: d[.ddd]e±XX.
  char buffer[64];
  auto result = std::to_chars(buffer, buffer + sizeof buffer, value, std::chars_format::scientific);
  std::string scientific(buffer, result.ptr);
  std::string sign;
  if (scientific.front() == '-') {
    sign = "-";
    scientific.erase(0, 1);
  }
  auto e = scientific.find('e');
  int exponent = std::atoi(scientific.c_str() + e + 1);
  std::string digits = scientific.substr(0, e);
  digits.erase(std::remove(digits.begin(), digits.end(), '.'), digits.end());

  if (value == 0) return sign + "0.0";
  if (exponent < -4 || exponent >= 16) {
    std::string mantissa = digits.substr(0, 1);
    if (digits.size() > 1) mantissa += "." + digits.substr(1);
    std::string exponentText = std::to_string(std::abs(exponent));
    if (exponentText.size() < 2) exponentText.insert(0, "0");
    return sign + mantissa + "e" + (exponent < 0 ? "-" : "+") + exponentText;
  }
  std::string integer, fraction;
  if (exponent < 0) {
    integer = "0";
    fraction = std::string(static_cast<std::size_t>(-exponent - 1), '0') + digits;
  } else {
    auto integerLength = static_cast<std::size_t>(exponent) + 1;
    if (digits.size() <= integerLength) {
      integer = digits + std::string(integerLength - digits.size(), '0');
    } else {
      integer = digits.substr(0, integerLength);
      fraction = digits.substr(integerLength);
    }
  }
  if (fraction.empty()) fraction = "0";
  return sign + integer + "." + fraction;
}

}  // namespace

std::string shortestText(double value) {
  return describe(value);
}
std::string shortestText(float value) {
  return describe(value);
}

}  // namespace brisola
