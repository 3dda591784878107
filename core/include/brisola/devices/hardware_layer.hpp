#pragma once

// The audio hardware layer as the device registry sees it: audio objects addressed by 32-bit
// IDs, properties addressed by selector, scope and element, queries that answer with a status
// (0 = success), and the application layer's running-application lookup.
//
// The interface has the shape of the platform's own calls on purpose: a binding to the real
// layer forwards each call unchanged, and every decision (which queries, in which order, how
// sizes and statuses are judged) stays in the registry.
//
// A HardwareLayer is one view of the hardware; the registry runs all queries of one operation
// against one view. A HardwareBackend hands out those views.

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "brisola/model/enum_cases.hpp"

namespace brisola {

class FileManager;

using AudioObjectID = std::uint32_t;
using AudioObjectPropertySelector = std::uint32_t;
using AudioObjectPropertyScope = std::uint32_t;
using AudioObjectPropertyElement = std::uint32_t;
using OSStatus = std::int32_t;

// 'abcd' as the platform writes its constants: the first character in the highest byte.
constexpr std::uint32_t fourCharCode(const char (&code)[5]) {
  return (static_cast<std::uint32_t>(static_cast<unsigned char>(code[0])) << 24) |
         (static_cast<std::uint32_t>(static_cast<unsigned char>(code[1])) << 16) |
         (static_cast<std::uint32_t>(static_cast<unsigned char>(code[2])) << 8) |
         static_cast<std::uint32_t>(static_cast<unsigned char>(code[3]));
}

// Objects.
inline constexpr AudioObjectID kAudioObjectUnknown = 0;
inline constexpr AudioObjectID kAudioObjectSystemObject = 1;

// Scopes and elements.
inline constexpr AudioObjectPropertyScope kAudioObjectPropertyScopeGlobal = fourCharCode("glob");
inline constexpr AudioObjectPropertyScope kAudioObjectPropertyScopeInput = fourCharCode("inpt");
inline constexpr AudioObjectPropertyScope kAudioObjectPropertyScopeOutput = fourCharCode("outp");
inline constexpr AudioObjectPropertyElement kAudioObjectPropertyElementMain = 0;

// Selectors of the system object.
inline constexpr AudioObjectPropertySelector kAudioHardwarePropertyDevices = fourCharCode("dev#");
inline constexpr AudioObjectPropertySelector kAudioHardwarePropertyDefaultInputDevice =
    fourCharCode("dIn ");
inline constexpr AudioObjectPropertySelector kAudioHardwarePropertyDefaultOutputDevice =
    fourCharCode("dOut");
inline constexpr AudioObjectPropertySelector kAudioHardwarePropertyTranslateBundleIDToPlugIn =
    fourCharCode("bidp");
inline constexpr AudioObjectPropertySelector kAudioHardwarePropertyProcessObjectList =
    fourCharCode("prs#");

// Selectors of devices.
inline constexpr AudioObjectPropertySelector kAudioDevicePropertyDeviceUID = fourCharCode("uid ");
inline constexpr AudioObjectPropertySelector kAudioObjectPropertyName = fourCharCode("lnam");
inline constexpr AudioObjectPropertySelector kAudioDevicePropertyStreamConfiguration =
    fourCharCode("slay");
inline constexpr AudioObjectPropertySelector kAudioObjectPropertyElementName = fourCharCode("lchn");

// Selectors of process objects.
inline constexpr AudioObjectPropertySelector kAudioProcessPropertyPID = fourCharCode("ppid");
inline constexpr AudioObjectPropertySelector kAudioProcessPropertyBundleID = fourCharCode("pbid");

// Statuses. Only 0 means success; the registry never looks at which failure it got.
inline constexpr OSStatus kAudioHardwareNoError = 0;
inline constexpr OSStatus kAudioHardwareNotRunningError =
    static_cast<OSStatus>(fourCharCode("stop"));
inline constexpr OSStatus kAudioHardwareUnknownPropertyError =
    static_cast<OSStatus>(fourCharCode("who?"));
inline constexpr OSStatus kAudioHardwareBadPropertySizeError =
    static_cast<OSStatus>(fourCharCode("!siz"));
inline constexpr OSStatus kAudioHardwareIllegalOperationError =
    static_cast<OSStatus>(fourCharCode("nope"));
inline constexpr OSStatus kAudioHardwareBadObjectError =
    static_cast<OSStatus>(fourCharCode("!obj"));

struct AudioObjectPropertyAddress {
  AudioObjectPropertySelector mSelector = 0;
  AudioObjectPropertyScope mScope = kAudioObjectPropertyScopeGlobal;
  AudioObjectPropertyElement mElement = kAudioObjectPropertyElementMain;
  bool operator==(const AudioObjectPropertyAddress&) const = default;
};

// Qualifier data of a query. The only qualifier in use is a string reference (the bundle ID
// handed to the plug-in translation); on the platform it is a string object passed by
// reference, `size` bytes long.
struct AudioObjectPropertyQualifier {
  static constexpr std::uint32_t stringReferenceSize = 8;
  std::string_view string;
  std::uint32_t size = stringReferenceSize;
};

// The result of reading a string-valued property. A successful query may still give no string
// (the platform's null reference): status 0 with no value.
struct AudioObjectStringProperty {
  OSStatus status = kAudioHardwareNoError;
  std::optional<std::string> value;
  bool operator==(const AudioObjectStringProperty&) const = default;
};

// The byte layout of the platform's audio buffer list on 64-bit targets: a UInt32 buffer count,
// padding to the 8-byte alignment of the buffers, then per buffer {UInt32 mNumberChannels,
// UInt32 mDataByteSize, void* mData}.
namespace AudioBufferListLayout {
inline constexpr std::uint32_t numberBuffersOffset = 0;
inline constexpr std::uint32_t buffersOffset = 8;
inline constexpr std::uint32_t bufferStride = 16;
inline constexpr std::uint32_t numberChannelsOffset = 0;  // within one buffer
inline constexpr std::uint32_t dataByteSizeOffset = 4;
inline constexpr std::uint32_t dataOffset = 8;
// The size the platform reports for a list of `numberBuffers` buffers.
constexpr std::uint32_t byteSize(std::uint32_t numberBuffers) {
  return buffersOffset + bufferStride * numberBuffers;
}
// A list with one buffer per entry, each with that many channels and no data.
std::vector<std::byte> encode(std::span<const std::uint32_t> channelsPerBuffer);
}  // namespace AudioBufferListLayout

// NSApplicationActivationPolicy: only `regular` applications (Dock icon, menu bar) are offered
// as capture candidates.
enum class ApplicationActivationPolicy { regular, accessory, prohibited };

template <>
struct EnumCases<ApplicationActivationPolicy> {
  static constexpr std::array<std::pair<ApplicationActivationPolicy, std::string_view>, 3> cases{{
      {ApplicationActivationPolicy::regular, "regular"},
      {ApplicationActivationPolicy::accessory, "accessory"},
      {ApplicationActivationPolicy::prohibited, "prohibited"},
  }};
};

struct RunningApplication {
  std::optional<std::string> localizedName;
  ApplicationActivationPolicy activationPolicy = ApplicationActivationPolicy::regular;
  bool operator==(const RunningApplication&) const = default;
};

// One view of the audio hardware and the running applications. Implementations need not be
// thread-safe; the registry uses each view from one thread for one operation.
class HardwareLayer {
 public:
  virtual ~HardwareLayer() = default;

  // AudioObjectHasProperty.
  virtual bool hasProperty(AudioObjectID objectID,
                           const AudioObjectPropertyAddress& address) const = 0;

  // AudioObjectGetPropertyDataSize: on success `outDataSize` holds the size in bytes of the
  // property's value.
  virtual OSStatus getPropertyDataSize(AudioObjectID objectID,
                                       const AudioObjectPropertyAddress& address,
                                       const AudioObjectPropertyQualifier* qualifier,
                                       std::uint32_t& outDataSize) const = 0;

  // AudioObjectGetPropertyData: `ioDataSize` is the capacity of `outData` on entry and the
  // number of bytes written on return. Values that do not fit fail with
  // kAudioHardwareBadPropertySizeError, except ID lists, which are cut to the IDs that fit.
  virtual OSStatus getPropertyData(AudioObjectID objectID,
                                   const AudioObjectPropertyAddress& address,
                                   const AudioObjectPropertyQualifier* qualifier,
                                   std::uint32_t& ioDataSize, void* outData) const = 0;

  // AudioObjectGetPropertyData for a property whose value is a string reference: the string is
  // converted to UTF-8 and the reference released by the implementation.
  virtual AudioObjectStringProperty getPropertyString(
      AudioObjectID objectID, const AudioObjectPropertyAddress& address) const = 0;

  // NSRunningApplication runningApplicationWithProcessIdentifier:.
  virtual std::optional<RunningApplication> runningApplication(std::int32_t pid) const = 0;

  // Why every query of this view fails, when it does (no hardware layer, an unreadable or
  // malformed simulation file); nothing for a working view.
  virtual std::optional<std::string> unavailableReason() const { return std::nullopt; }
};

// Hands out views of the hardware. The registry's operations without a layer argument take
// one view of HardwareBackend::current() per call.
class HardwareBackend {
 public:
  virtual ~HardwareBackend() = default;

  // A view of the hardware as it is now. Never throws for a missing or broken source of
  // hardware: the view then fails every query and says why.
  virtual std::unique_ptr<HardwareLayer> snapshot() const = 0;

  // The reason the current view fails every query; nothing when it works.
  std::optional<std::string> status() const { return snapshot()->unavailableReason(); }

  // The back end of this process, chosen afresh from the environment on every call so that
  // the service and the tools agree: BRISOLA_HARDWARE_SIMULATION set and not empty selects the
  // simulated hardware in that file; otherwise PipeWire (or, in a build without it, no
  // hardware layer at all).
  static std::unique_ptr<HardwareBackend> current();
  // Where current() takes the hardware from, for people.
  static std::string currentSource();

  // The audio server of this user's session. Every back end shares one connection of the
  // process, kept current by the server's events, so a snapshot costs no round trip; the
  // first one waits (about a second at most) for the server's initial state.
  static std::unique_ptr<HardwareBackend> pipeWire();

  // Simulated hardware described by a JSON file, read afresh for every snapshot.
  static std::unique_ptr<HardwareBackend> simulated(std::filesystem::path file,
                                                    std::shared_ptr<FileManager> fileManager);
  static std::unique_ptr<HardwareBackend> simulated(std::filesystem::path file);

  // A back end whose views fail every query with `reason`.
  static std::unique_ptr<HardwareBackend> unavailable(std::string reason);
};

inline constexpr std::string_view hardwareSimulationEnvironmentVariable =
    "BRISOLA_HARDWARE_SIMULATION";

}  // namespace brisola
