// Devices, sources and monitors as people name them.

#include <algorithm>
#include <functional>
#include <vector>

#include "brisola/platform/unicode.hpp"
#include "brisolactl/ctl.hpp"

namespace brisola::ctl {

namespace {

template <class Element>
std::string resolve(const std::string& text, const std::vector<Element>& elements,
                    const std::string& kind) {
  const auto byID = [&](const Element& element) { return element.id == text; };
  if (text.empty() || std::any_of(elements.begin(), elements.end(), byID)) return text;
  const std::string folded = unicode::lowercased(text);
  const std::vector<std::function<bool(const Element&)>> rules{
      [&](const Element& element) { return element.name == text; },
      [&](const Element& element) { return unicode::lowercased(element.name) == folded; },
      [&](const Element& element) { return element.id.starts_with(text); },
  };
  for (const auto& matches : rules) {
    std::vector<const Element*> found;
    for (const Element& element : elements) {
      if (matches(element)) found.push_back(&element);
    }
    if (found.size() == 1) return found.front()->id;
    if (found.size() > 1) {
      std::string list;
      for (const Element* element : found) {
        list += (list.empty() ? "" : ", ") + element->id + " (" + element->name + ")";
      }
      throw Failure(Exit::usage, "'" + text + "' could be any of " + std::to_string(found.size()) +
                                     " " + kind + "s: " + list + "; give the id");
    }
  }
  return text;  // the editor reports it missing
}

}  // namespace

std::string Naming::device(const std::string& text, const ConfigSnapshot& in) {
  return resolve(text, in.devices, "device");
}

std::string Naming::source(const std::string& text, const DeviceConfig& device) {
  return resolve(text, device.sources, "source");
}

std::string Naming::monitor(const std::string& text, const DeviceConfig& device) {
  return resolve(text, device.monitors, "monitor");
}

}  // namespace brisola::ctl
