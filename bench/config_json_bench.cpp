// Reading and writing the configuration document, and one store load from disk. Decoding is
// measured three ways on the same bytes: the library's decoder, the nlohmann way alone (the
// decoder's fallback, and its only way before simdjson) and a bare simdjson walk that visits
// every value, the floor of any decoder built on it.

#include <benchmark/benchmark.h>
#include <simdjson.h>

#include "brisola/model/json_coding.hpp"
#include "brisola/store/config_store.hpp"
#include "model/config_json.hpp"
#include "support/documents.hpp"
#include "support/temp_dir.hpp"

namespace {

using namespace brisola;

ConfigSnapshot documentWith(int deviceCount) {
  ConfigSnapshot snapshot = ConfigSnapshot::empty();
  for (int i = 0; i < deviceCount; ++i) {
    std::string id = "device-" + std::to_string(i);
    DeviceConfig device = testing::stereoDevice(id, "Device " + std::to_string(i));
    device.sources.push_back(testing::hardwareSource(id + "-mic", "BuiltInMic"));
    device.monitors.push_back(testing::monitor(id + "-spk", "BuiltInSpeakers"));
    device.wires.push_back(
        testing::wire(id + "-m1", testing::outputEnd(id, 1), testing::monitorEnd(id + "-spk", 1)));
    snapshot.devices.push_back(std::move(device));
  }
  return snapshot;
}

void BM_Encode(benchmark::State& state) {
  ConfigSnapshot snapshot = documentWith(static_cast<int>(state.range(0)));
  std::size_t bytes = 0;
  for (auto _ : state) {
    std::string text = encodeJSON(snapshot);
    bytes = text.size();
    benchmark::DoNotOptimize(text);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes));
}
BENCHMARK(BM_Encode)->Arg(10)->Arg(1000);

void BM_Decode(benchmark::State& state) {
  std::string text = encodeJSON(documentWith(static_cast<int>(state.range(0))));
  for (auto _ : state) benchmark::DoNotOptimize(decodeJSON<ConfigSnapshot>(text));
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
}
BENCHMARK(BM_Decode)->Arg(10)->Arg(1000);

void BM_DecodeNlohmann(benchmark::State& state) {
  std::string text = encodeJSON(documentWith(static_cast<int>(state.range(0))));
  for (auto _ : state) {
    benchmark::DoNotOptimize(json::readSnapshot(json::parse(text), ""));
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
}
BENCHMARK(BM_DecodeNlohmann)->Arg(10)->Arg(1000);

std::size_t visit(simdjson::dom::element element) {
  std::size_t count = 1;
  if (simdjson::dom::array array; element.get(array) == simdjson::SUCCESS) {
    for (auto item : array) count += visit(item);
  } else if (simdjson::dom::object object; element.get(object) == simdjson::SUCCESS) {
    for (auto [key, value] : object) count += key.size() + visit(value);
  } else if (std::string_view text; element.get(text) == simdjson::SUCCESS) {
    count += text.size();
  }
  return count;
}

void BM_SimdjsonWalk(benchmark::State& state) {
  std::string text = encodeJSON(documentWith(static_cast<int>(state.range(0))));
  simdjson::dom::parser parser;
  for (auto _ : state) {
    simdjson::padded_string padded(text);
    benchmark::DoNotOptimize(visit(parser.parse(padded).value()));
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
}
BENCHMARK(BM_SimdjsonWalk)->Arg(10)->Arg(1000);

void BM_StoreLoad(benchmark::State& state) {
  testing::TempDir dir;
  ConfigStore store(dir / "config.json", FileManager::defaultManager());
  store.save(documentWith(static_cast<int>(state.range(0))));
  for (auto _ : state) benchmark::DoNotOptimize(store.load());
}
BENCHMARK(BM_StoreLoad)->Arg(10)->Arg(1000);

void BM_StoreSave(benchmark::State& state) {
  testing::TempDir dir;
  ConfigStore store(dir / "config.json", FileManager::defaultManager());
  ConfigSnapshot snapshot = documentWith(static_cast<int>(state.range(0)));
  for (auto _ : state) store.save(snapshot);
}
BENCHMARK(BM_StoreSave)->Arg(10);

}  // namespace

BENCHMARK_MAIN();
