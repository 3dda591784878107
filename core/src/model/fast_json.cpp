#include "model/fast_json.hpp"

#include <string>

namespace brisola::json {

FastMembers::FastMembers(const FastNode& node) {
  simdjson::dom::object object;
  if (node.element_.get(object) != simdjson::SUCCESS) throw FastPathMiss{};
  for (auto [key, value] : object) {
    if (count_ == capacity) throw FastPathMiss{};
    for (std::size_t i = 0; i < count_; ++i) {
      if (slots_[i].member.key == key) throw FastPathMiss{};
    }
    std::construct_at(&slots_[count_++].member, Member{key, value});
  }
}

bool decodeFast(std::string_view bytes, const std::function<void(const FastNode&)>& read) {
  // One parser per thread keeps its buffers from one document to the next; documents beyond
  // its capacity take the nlohmann way rather than pin that much memory for good.
  constexpr std::size_t capacity = 8 << 20;
  thread_local simdjson::dom::parser parser(capacity);
  thread_local std::string padded;
  if (bytes.size() > capacity) return false;
  padded.assign(bytes);
  padded.resize(bytes.size() + simdjson::SIMDJSON_PADDING);
  simdjson::dom::element root;
  if (parser.parse(padded.data(), bytes.size(), false).get(root) != simdjson::SUCCESS) {
    return false;
  }
  try {
    read(FastNode(root));
    return true;
  } catch (const FastPathMiss&) {
  } catch (const DecodingError&) {
  }
  return false;
}

}  // namespace brisola::json
