#pragma once

#include <array>
#include <optional>
#include <string_view>
#include <utility>

namespace brisola {

// Every enumeration that appears in a JSON form specialises EnumCases with its cases in
// declaration order, paired with their string values. The generic helpers below then give
// construction from a string, the string of a case and the list of all cases.
template <class E>
struct EnumCases;

template <class E>
constexpr const auto& allCases() {
  return EnumCases<E>::cases;
}

template <class E>
constexpr std::string_view enumName(E value) {
  for (const auto& [candidate, name] : EnumCases<E>::cases) {
    if (candidate == value) return name;
  }
  return {};
}

template <class E>
constexpr std::optional<E> enumFromName(std::string_view name) {
  for (const auto& [candidate, candidateName] : EnumCases<E>::cases) {
    if (candidateName == name) return candidate;
  }
  return std::nullopt;
}

}  // namespace brisola
