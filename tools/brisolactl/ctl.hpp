#pragma once

// brisolactl: the core library's queries and edits from a shell. Every command prints JSON in
// the library's encoder form on standard output (except `graph` and `meter --watch`), and
// problems as "brisolactl: " + description on standard error.

#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>

#include <CLI/CLI.hpp>

#include "brisola/model/config.hpp"
#include "brisola/store/config_store.hpp"

namespace brisola::ctl {

// The exit statuses, the same for every command.
namespace Exit {
inline constexpr int success = 0;
// The answer is no: the document has errors, there is no meter reading, the service is not
// alive, or the editor refused the change (the file is then untouched).
inline constexpr int negative = 1;
// Something could not be read or written: the document, the simulated hardware, the control
// block.
inline constexpr int unavailable = 2;
// The command line itself is wrong (sysexits' EX_USAGE).
inline constexpr int usage = 64;
}  // namespace Exit

// Ends the command with a status and, when not empty, a message for standard error.
class Failure : public std::runtime_error {
 public:
  Failure(int status, const std::string& message) : std::runtime_error(message), status_(status) {}
  int status() const { return status_; }

 private:
  int status_;
};

// What every command shares: the document's location, chosen once the command line is parsed.
struct Context {
  std::optional<std::string> configOption;
  // Edits: save a change even when it adds validation errors.
  bool force = false;
  // Set by a command's callback; main() returns it.
  int status = Exit::success;

  std::filesystem::path configURL() const;
  ConfigStore store() const;
  // The document as the service would read it; a missing or broken document is
  // Failure(unavailable).
  ConfigSnapshot loadDocument() const;
};

// Devices, sources and monitors named as people name them: the id, the name (exactly, then
// ignoring case), or a unique prefix of the id, in that order. Text that names nothing comes
// back unchanged for the editor to report; text that names several is Failure(usage) listing
// them.
namespace Naming {
std::string device(const std::string& text, const ConfigSnapshot& in);
std::string source(const std::string& text, const DeviceConfig& device);
std::string monitor(const std::string& text, const DeviceConfig& device);
}  // namespace Naming

// Writes a JSON text (or any text) and a line feed to standard output.
void print(const std::string& text);

void addDocumentCommands(CLI::App& app, Context& context);
void addHardwareCommands(CLI::App& app, Context& context);
void addRuntimeCommands(CLI::App& app, Context& context);
void addEditCommands(CLI::App& app, Context& context);
// After addEditCommands: adds `list` to its groups.
void addListCommands(CLI::App& app, Context& context);

// The document's routing as a Graphviz digraph.
std::string dotGraph(const ConfigSnapshot& snapshot);

// Redraws the owner's meter under `title` a few times a second until SIGINT or SIGTERM.
void watchMeter(const std::string& ownerID, const std::string& title);

int main(int argc, char** argv);

}  // namespace brisola::ctl
