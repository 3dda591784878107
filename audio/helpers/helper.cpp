#include "helpers/helper.hpp"

#include <pipewire/pipewire.h>

#include <cmath>
#include <cstdlib>
#include <iostream>
#include <set>

#include "brisola/runtime/runtime_controls.hpp"

extern char** environ;

namespace brisola::audio {

using namespace std::chrono_literals;

HelperEnvironment::HelperEnvironment(const std::map<std::string, std::string>& variables,
                                     std::string prefix)
    : prefix_(std::move(prefix)) {
  for (const auto& [key, value] : variables) {
    if (key.starts_with(prefix_)) variables_.emplace(key, value);
  }
}

HelperEnvironment HelperEnvironment::current(std::string prefix) {
  std::map<std::string, std::string> variables;
  for (char** entry = environ; *entry != nullptr; ++entry) {
    const std::string text(*entry);
    if (auto equals = text.find('='); equals != std::string::npos) {
      variables.emplace(text.substr(0, equals), text.substr(equals + 1));
    }
  }
  return HelperEnvironment(variables, std::move(prefix));
}

std::optional<std::string> HelperEnvironment::optional(const std::string& suffix) const {
  auto found = variables_.find(name(suffix));
  if (found == variables_.end()) return std::nullopt;
  return found->second;
}

std::string HelperEnvironment::required(const std::string& suffix) const {
  auto value = optional(suffix);
  if (!value || value->empty()) throw HelperError(name(suffix) + " is not set");
  return *value;
}

bool HelperEnvironment::flag(const std::string& suffix) const {
  const auto value = optional(suffix).value_or("0");
  if (value != "0" && value != "1") {
    throw HelperError(name(suffix) + " must be 1 or 0, not \"" + value + "\"");
  }
  return value == "1";
}

GainStage HelperEnvironment::gainStage(ChannelGainSide side) const {
  GainStage stage;
  const std::string gainText = optional("GAIN").value_or("1.0");
  char* end = nullptr;
  const double gain = std::strtod(gainText.c_str(), &end);
  if (gainText.empty() || end != gainText.c_str() + gainText.size()) {
    throw HelperError(name("GAIN") + " is not a number: \"" + gainText + "\"");
  }
  // The same rule as every gain that reaches the audio: not finite is unity, then 0...2.
  stage.gain = flag("MUTED") ? 0.0f : RuntimeDeviceControls::sanitizedGain(gain);
  const auto routes = parseRoutes(optional("ROUTES").value_or(""));
  if (!routes) {
    throw HelperError(name("ROUTES") + " is not a route list like 1:1,2:2: \"" +
                      optional("ROUTES").value_or("") + "\"");
  }
  stage.setRoutes(*routes);
  if (auto text = optional("CHANNEL_GAINS")) {
    const auto gains = parseGains(*text);
    if (!gains) throw HelperError(name("CHANNEL_GAINS") + " is not a gain list: \"" + *text + "\"");
    auto& target = side == ChannelGainSide::input ? stage.inputGains : stage.outputGains;
    for (std::size_t c = 0; c < gains->size() && c < target.size(); ++c) {
      target[c] = RuntimeDeviceControls::sanitizedGain((*gains)[c]);
    }
  }
  return stage;
}

HelperPath::HelperPath(AudioSession& session, const std::string& name, const GainStage& stage)
    : session_(session),
      stage_(stage),
      inputBuffers_(stage.inputChannelsUsed()),
      outputBuffers_(stage.outputChannelsUsed()),
      // No media class and no automatic connection: the session manager leaves it alone.
      filter_(session,
              {{PW_KEY_NODE_NAME, name},
               {PW_KEY_MEDIA_TYPE, "Audio"},
               {PW_KEY_MEDIA_CATEGORY, "Filter"},
               {PW_KEY_MEDIA_ROLE, "DSP"},
               {std::string(PipeWireKeys::nodeRole), "helper"}},
              [this](std::uint32_t frames) { process(frames); }),
      links_(session) {
  std::vector<AudioFilter::Port> inputs;
  std::vector<AudioFilter::Port> outputs;
  const auto inPositions = channelPositions(inputBuffers_.size());
  const auto outPositions = channelPositions(outputBuffers_.size());
  for (const auto& position : inPositions) {
    inputs.push_back(filter_.addPort(PipeWireDirection::input, {"in_" + position, position}));
  }
  for (const auto& position : outPositions) {
    outputs.push_back(filter_.addPort(PipeWireDirection::output, {"out_" + position, position}));
  }
  filter_.betweenCycles([&] {
    inputs_ = std::move(inputs);
    outputs_ = std::move(outputs);
  });
}

void HelperPath::process(std::uint32_t frames) {
  // Until the ports are handed over, both lists are empty and nothing is done.
  for (std::size_t c = 0; c < inputs_.size(); ++c) {
    inputBuffers_[c] = AudioFilter::input(inputs_[c], frames);
  }
  for (std::size_t c = 0; c < outputs_.size(); ++c) {
    outputBuffers_[c] = AudioFilter::output(outputs_[c], frames);
  }
  render(stage_, std::span(inputBuffers_).first(inputs_.size()), {},
         std::span(outputBuffers_).first(outputs_.size()), frames);
}

void HelperPath::connect(const Wiring& wiring) {
  const auto& graph = session_.graph();
  const auto inPositions = channelPositions(inputBuffers_.size());
  const auto outPositions = channelPositions(outputBuffers_.size());
  std::set<LinkSet::Pair> wanted;
  for (std::size_t c = 0; c < inPositions.size() && c < wiring.sources.size(); ++c) {
    const auto input = filter_.port(graph, "in_" + inPositions[c]);
    if (!input) continue;
    for (const auto* source : wiring.sources[c]) wanted.emplace(source->id, *input);
  }
  for (std::size_t c = 0; c < outPositions.size() && c < wiring.destinations.size(); ++c) {
    const auto output = filter_.port(graph, "out_" + outPositions[c]);
    if (output) wanted.emplace(*output, wiring.destinations[c]->id);
  }
  links_.set(wanted);
}

int runHelper(const std::string& program, const std::string& prefix, const MakeRoute& make) {
  const auto environment = HelperEnvironment::current(prefix);
  std::unique_ptr<AudioSession> session;
  std::unique_ptr<HelperRoute> route;
  try {
    session = std::make_unique<AudioSession>(program);
    route = make(environment, *session);
  } catch (const HelperError& error) {
    std::cerr << program << ": " << error.what() << std::endl;
    return 2;
  } catch (const std::exception& error) {
    std::cerr << program << ": " << error.what() << std::endl;
    return 1;
  }
  // A device that the service has just published may take a moment to appear.
  session->waitForGraph(2s);
  std::variant<Wiring, std::string> wiring = std::string();
  session->runUntil(
      [&] {
        wiring = route->wire(session->graph());
        return std::holds_alternative<Wiring>(wiring);
      },
      2s);
  if (const auto* missing = std::get_if<std::string>(&wiring)) {
    std::cerr << program << ": " << *missing << std::endl;
    return 1;
  }
  HelperPath path(*session, route->nodeName, route->stage);
  auto follow = [&] {
    auto now = route->wire(session->graph());
    // A device that went away is waited for: its links go with it, and come back with it.
    if (const auto* found = std::get_if<Wiring>(&now)) path.connect(*found);
  };
  session->onGraphChange(follow);
  follow();
  const int status = session->run();
  route->finish();
  return status;
}

}  // namespace brisola::audio
