#include "support/audio_probe.hpp"

#include <pipewire/pipewire.h>
#include <spa/node/io.h>
#include <spa/param/audio/format-utils.h>

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <mutex>
#include <stdexcept>

#include "support/system_helpers.hpp"

namespace brisola::testing {

namespace {

constexpr std::uint32_t rate = 48000;

std::size_t toFrames(std::chrono::milliseconds duration) {
  return static_cast<std::size_t>(duration.count()) * rate / 1000;
}

class Locked {
 public:
  explicit Locked(pw_thread_loop* loop) : loop_(loop) { pw_thread_loop_lock(loop_); }
  ~Locked() { pw_thread_loop_unlock(loop_); }
  Locked(const Locked&) = delete;
  Locked& operator=(const Locked&) = delete;

 private:
  pw_thread_loop* loop_;
};

class Player final : public AudioProbe::Stream {
 public:
  Player(AudioProbe& probe, const ToneSpec& tone)
      : Stream(probe, tone.amplitudes.size()),
        amplitudes_(tone.amplitudes),
        step_(2 * M_PI * tone.frequency / rate) {
    connect(tone.name.c_str(), true, tone.target, false);
  }
  ~Player() override { disconnect(); }

 private:
  void process() override {
    pw_buffer* buffer = pw_stream_dequeue_buffer(stream_);
    if (buffer == nullptr) return;
    spa_data& data = buffer->buffer->datas[0];
    auto* samples = static_cast<float*>(data.data);
    if (samples == nullptr) return;
    const std::uint32_t stride = static_cast<std::uint32_t>(sizeof(float) * channels_);
    std::uint64_t frames = data.maxsize / stride;
    if (buffer->requested > 0) frames = std::min<std::uint64_t>(frames, buffer->requested);
    for (std::uint64_t n = 0; n < frames; ++n) {
      const double value = std::sin(phase_);
      phase_ = std::fmod(phase_ + step_, 2 * M_PI);
      for (std::size_t c = 0; c < channels_; ++c) {
        samples[n * channels_ + c] = static_cast<float>(amplitudes_[c] * value);
      }
    }
    data.chunk->offset = 0;
    data.chunk->stride = static_cast<std::int32_t>(stride);
    data.chunk->size = static_cast<std::uint32_t>(frames * stride);
    pw_stream_queue_buffer(stream_, buffer);
  }

  std::vector<double> amplitudes_;
  double step_;
  double phase_ = 0;
};

}  // namespace

double sineLevel(double amplitude) {
  return 20 * std::log10(amplitude / std::sqrt(2.0));
}

bool levelsMatch(const std::vector<double>& levels, const std::vector<double>& amplitudes) {
  if (levels.size() != amplitudes.size()) return false;
  for (std::size_t c = 0; c < amplitudes.size(); ++c) {
    const bool heard = amplitudes[c] == 0 ? levels[c] < -90
                                          : std::abs(levels[c] - sineLevel(amplitudes[c])) <= 0.1;
    if (!heard) return false;
  }
  return true;
}

void expectLevels(const std::vector<double>& levels, const std::vector<double>& amplitudes) {
  EXPECT_TRUE(levelsMatch(levels, amplitudes))
      << "heard " << ::testing::PrintToString(levels) << " dBFS, not sines of "
      << ::testing::PrintToString(amplitudes);
}

AudioProbe::AudioProbe() {
  static std::once_flag initialised;
  std::call_once(initialised, [] { pw_init(nullptr, nullptr); });
  loop_ = pw_thread_loop_new("brisola-test-probe", nullptr);
  if (loop_ == nullptr || pw_thread_loop_start(loop_) < 0) {
    throw std::runtime_error("cannot start the probe's loop");
  }
}

AudioProbe::~AudioProbe() {
  pw_thread_loop_stop(loop_);
  pw_thread_loop_destroy(loop_);
}

std::unique_ptr<AudioProbe::Stream> AudioProbe::play(const ToneSpec& tone) {
  return std::make_unique<Player>(*this, tone);
}

std::unique_ptr<AudioProbe::Recorder> AudioProbe::record(const RecordSpec& wanted) {
  return std::make_unique<Recorder>(*this, wanted);
}

struct AudioProbe::Stream::Listener {
  spa_hook hook{};
  static void process(void* data) { static_cast<Stream*>(data)->process(); }
  static void ioChanged(void* data, std::uint32_t id, void* area, std::uint32_t) {
    if (id == SPA_IO_Position) {
      static_cast<Stream*>(data)->position_.store(static_cast<const spa_io_position*>(area));
    }
  }
  static constexpr pw_stream_events events{
      .version = PW_VERSION_STREAM_EVENTS, .io_changed = ioChanged, .process = process};
};

AudioProbe::Stream::Stream(AudioProbe& probe, std::size_t channels)
    : probe_(probe), channels_(channels), listener_(std::make_unique<Listener>()) {}

AudioProbe::Stream::~Stream() {
  disconnect();
}

void AudioProbe::Stream::disconnect() {
  if (stream_ == nullptr) return;
  Locked locked(probe_.loop_);
  pw_stream_destroy(stream_);
  stream_ = nullptr;
}

void AudioProbe::Stream::connect(const char* name, bool output, const std::string& target,
                                 bool sinkMonitor) {
  Locked locked(probe_.loop_);
  pw_properties* properties = pw_properties_new(PW_KEY_MEDIA_TYPE, "Audio", PW_KEY_MEDIA_CATEGORY,
                                                output ? "Playback" : "Capture", PW_KEY_MEDIA_ROLE,
                                                "Music", PW_KEY_NODE_NAME, name, nullptr);
  if (!target.empty()) {
    pw_properties_set(properties, PW_KEY_TARGET_OBJECT, target.c_str());
    // The session manager, as PulseAudio did, takes a stream linked to the default device for
    // one that follows the default, and moves it when another device becomes the default (as
    // one does when devices are removed): a probe stays on the device it measures.
    pw_properties_set(properties, PW_KEY_NODE_DONT_RECONNECT, "true");
  }
  if (sinkMonitor) pw_properties_set(properties, PW_KEY_STREAM_CAPTURE_SINK, "true");
  stream_ = pw_stream_new_simple(pw_thread_loop_get_loop(probe_.loop_), name, properties,
                                 &Listener::events, this);
  if (stream_ == nullptr) throw std::runtime_error("cannot make the stream " + std::string(name));

  spa_audio_info_raw info{};
  info.format = SPA_AUDIO_FORMAT_F32;
  info.rate = rate;
  info.channels = static_cast<std::uint32_t>(channels_);
  for (std::size_t c = 0; c < channels_ && c < SPA_AUDIO_MAX_CHANNELS; ++c) {
    const std::uint32_t aux = SPA_AUDIO_CHANNEL_AUX0 + static_cast<std::uint32_t>(c);
    const std::uint32_t stereo = c == 0 ? SPA_AUDIO_CHANNEL_FL : SPA_AUDIO_CHANNEL_FR;
    info.position[c] = channels_ == 2 ? stereo : aux;
  }
  std::uint8_t buffer[1024];
  spa_pod_builder builder = SPA_POD_BUILDER_INIT(buffer, sizeof buffer);
  const spa_pod* params[1] = {spa_format_audio_raw_build(&builder, SPA_PARAM_EnumFormat, &info)};
  auto flags = static_cast<pw_stream_flags>(PW_STREAM_FLAG_MAP_BUFFERS | PW_STREAM_FLAG_RT_PROCESS |
                                            (target.empty() ? 0 : PW_STREAM_FLAG_AUTOCONNECT));
  if (pw_stream_connect(stream_, output ? PW_DIRECTION_OUTPUT : PW_DIRECTION_INPUT, PW_ID_ANY,
                        flags, params, 1) < 0) {
    throw std::runtime_error("cannot connect the stream " + std::string(name));
  }
}

AudioProbe::Recorder::Recorder(AudioProbe& probe, const RecordSpec& wanted)
    : Stream(probe, wanted.channels),
      samples_(wanted.channels,
               std::vector<float>(static_cast<std::size_t>(wanted.seconds * rate))),
      blocks_(static_cast<std::size_t>(wanted.seconds * rate / 16)) {
  connect(wanted.name.c_str(), false, wanted.target, wanted.sinkMonitor);
}

AudioProbe::Recorder::~Recorder() {
  disconnect();
}

void AudioProbe::Recorder::process() {
  pw_buffer* buffer = pw_stream_dequeue_buffer(stream_);
  if (buffer == nullptr) return;
  const spa_data& data = buffer->buffer->datas[0];
  const std::size_t stride = sizeof(float) * channels_;
  const auto* samples = static_cast<const float*>(data.data);
  if (samples != nullptr && data.chunk != nullptr) {
    samples = reinterpret_cast<const float*>(reinterpret_cast<const std::uint8_t*>(samples) +
                                             data.chunk->offset % data.maxsize);
    const std::size_t first = frames_.load(std::memory_order_relaxed);
    const std::size_t count =
        std::min<std::size_t>(data.chunk->size / stride, samples_[0].size() - first);
    for (std::size_t n = 0; n < count; ++n) {
      for (std::size_t c = 0; c < channels_; ++c)
        samples_[c][first + n] = samples[n * channels_ + c];
    }
    const std::size_t block = blockCount_.load(std::memory_order_relaxed);
    if (block < blocks_.size() && count > 0) {
      const spa_io_position* position = position_.load(std::memory_order_relaxed);
      blocks_[block] = Block{first, count, position != nullptr ? position->clock.position : 0,
                             std::chrono::steady_clock::now()};
      blockCount_.store(block + 1, std::memory_order_release);
    }
    frames_.store(first + count, std::memory_order_release);
  }
  pw_stream_queue_buffer(stream_, buffer);
}

bool AudioProbe::Recorder::waitForMore(std::size_t count, std::chrono::milliseconds limit) const {
  const std::size_t target = frames() + count;
  return eventually([&] { return frames() >= target; }, limit);
}

std::vector<double> AudioProbe::Recorder::levels(std::size_t from, std::size_t to) const {
  to = std::min(to, frames());
  std::vector<double> result;
  for (const auto& channel : samples_) {
    if (from >= to) {
      result.push_back(-std::numeric_limits<double>::infinity());
      continue;
    }
    double sum = 0;
    for (std::size_t i = from; i < to; ++i) sum += double(channel[i]) * channel[i];
    result.push_back(10 * std::log10(sum / static_cast<double>(to - from)));
  }
  return result;
}

std::vector<double> AudioProbe::Recorder::recentLevels(std::chrono::milliseconds duration) const {
  const std::size_t end = frames();
  return levels(end > toFrames(duration) ? end - toFrames(duration) : 0, end);
}

std::vector<double> AudioProbe::Recorder::levelsAfter(std::chrono::milliseconds settle,
                                                      std::chrono::milliseconds measure) const {
  const std::size_t from = frames() + toFrames(settle);
  if (!waitForMore(toFrames(settle) + toFrames(measure), std::chrono::seconds(5))) {
    throw std::runtime_error("the recorder heard nothing for 5 s");
  }
  return levels(from, from + toFrames(measure));
}

std::vector<AudioProbe::Recorder::Block> AudioProbe::Recorder::blocks() const {
  const std::size_t count = blockCount_.load(std::memory_order_acquire);
  return std::vector<Block>(blocks_.begin(), blocks_.begin() + static_cast<std::ptrdiff_t>(count));
}

}  // namespace brisola::testing
