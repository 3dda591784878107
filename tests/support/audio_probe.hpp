#pragma once

// Sound into and out of a PipeWire graph from inside a test: players of steady sines, one
// amplitude per channel, and recorders that keep everything they hear with the graph position
// and the arrival time of every block, so tests measure levels and timing in recorded audio.

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

struct pw_thread_loop;
struct pw_stream;
struct spa_io_position;

namespace brisola::testing {

struct ToneSpec {
  std::string target;              // node.name to play into; empty: none (link it yourself)
  std::vector<double> amplitudes;  // peak amplitude per channel
  double frequency = 1000;         // 48 whole periods in 48 samples' multiples
  std::string name = "brisola-test-tone";
};

struct RecordSpec {
  std::string target;  // node.name to record from
  std::size_t channels = 2;
  bool sinkMonitor = false;  // a sink's monitor rather than a source
  double seconds = 30;       // the most kept
  std::string name = "brisola-test-recorder";
};

class AudioProbe {
 public:
  class Stream;
  class Recorder;

  // Its own connection, to the server that the environment names, on a thread of its own.
  AudioProbe();
  ~AudioProbe();
  AudioProbe(const AudioProbe&) = delete;
  AudioProbe& operator=(const AudioProbe&) = delete;

  std::unique_ptr<Stream> play(const ToneSpec& tone);
  std::unique_ptr<Recorder> record(const RecordSpec& wanted);

 private:
  friend class Stream;
  pw_thread_loop* loop_ = nullptr;
};

// A player or recorder: removed from the graph when destroyed.
class AudioProbe::Stream {
 public:
  virtual ~Stream();
  Stream(const Stream&) = delete;
  Stream& operator=(const Stream&) = delete;

 protected:
  Stream(AudioProbe& probe, std::size_t channels);
  // Takes the stream out of the graph; every derived destructor calls it first, so that the
  // audio thread never runs a process() whose object is half gone.
  void disconnect();
  void connect(const char* name, bool output, const std::string& target, bool sinkMonitor);
  virtual void process() = 0;
  AudioProbe& probe_;
  pw_stream* stream_ = nullptr;
  std::size_t channels_;
  // The driver's clock, shared by every node it drives; set by the stream on its own thread.
  std::atomic<const spa_io_position*> position_{nullptr};

 private:
  struct Listener;
  std::unique_ptr<Listener> listener_;
};

class AudioProbe::Recorder : public AudioProbe::Stream {
 public:
  struct Block {
    std::size_t firstFrame = 0;
    std::size_t frames = 0;
    std::uint64_t graphPosition = 0;  // the driver's clock position of the block, in samples
    std::chrono::steady_clock::time_point arrived;
  };

  Recorder(AudioProbe& probe, const RecordSpec& wanted);
  ~Recorder() override;

  std::size_t frames() const { return frames_.load(std::memory_order_acquire); }
  // Waits until at least `count` frames more than now have arrived.
  bool waitForMore(std::size_t count, std::chrono::milliseconds limit) const;
  // Per channel, the RMS in dBFS of frames [from, to) (-inf for digital silence).
  std::vector<double> levels(std::size_t from, std::size_t to) const;
  // Per channel, the RMS in dBFS of the newest `duration` of audio.
  std::vector<double> recentLevels(std::chrono::milliseconds duration) const;
  // Waits for `settle` of fresh audio, then measures the next `measure` of it.
  std::vector<double> levelsAfter(std::chrono::milliseconds settle,
                                  std::chrono::milliseconds measure) const;
  const std::vector<float>& samples(std::size_t channel) const { return samples_.at(channel); }
  std::vector<Block> blocks() const;

 private:
  void process() override;
  std::vector<std::vector<float>> samples_;
  std::vector<Block> blocks_;
  std::atomic<std::size_t> frames_{0};
  std::atomic<std::size_t> blockCount_{0};
};

// An amplitude in dBFS of a steady sine whose peak is `amplitude` (RMS = peak / √2).
double sineLevel(double amplitude);
// Each level within 0.1 dB of a sine of its amplitude, or below -90 dBFS where that is 0.
bool levelsMatch(const std::vector<double>& levels, const std::vector<double>& amplitudes);
void expectLevels(const std::vector<double>& levels, const std::vector<double>& amplitudes);

}  // namespace brisola::testing
