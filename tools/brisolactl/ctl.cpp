#include <csignal>
#include <cstdlib>
#include <iostream>

#include "brisola/editing/config_editor.hpp"
#include "brisola/platform/settings.hpp"
#include "brisolactl/ctl.hpp"

namespace brisola::ctl {

std::filesystem::path Context::configURL() const {
  std::optional<std::string> chosen = configOption;
  if (!chosen || chosen->empty()) chosen = Settings::current().configPath;
  return ConfigStore::configuredURL(chosen, *FileManager::defaultManager());
}

ConfigStore Context::store() const {
  return ConfigStore(configURL(), FileManager::defaultManager());
}

ConfigSnapshot Context::loadDocument() const {
  return store().load();
}

void print(const std::string& text) {
  std::cout << text << '\n';
}

int main(int argc, char** argv) {
  // Beyond a file-size limit a write then fails with EFBIG ("File too large") and the save
  // cleans up, instead of the signal killing the tool midway without a word.
  std::signal(SIGXFSZ, SIG_IGN);
  Context context;
  CLI::App app{
      "Inspects and edits Brisola's virtual audio devices: the configuration document, "
      "the audio hardware, and the live state the service shares.",
      "brisolactl"};
  app.set_version_flag("--version", std::string(BRISOLA_VERSION));
  app.add_option("--config", context.configOption,
                 "The configuration document. Default: BRISOLA_CONFIG_PATH when set and not "
                 "empty, else the service's default location.");
  app.require_subcommand(1);
  // --config may follow the subcommand too.
  app.fallthrough();
  app.footer(
      "Output is JSON on standard output (DOT for graph). Exit status: 0 success; 1 the answer "
      "is no (validation errors, no meter reading, service not alive) or the edit was refused "
      "(the document is left untouched); 2 the document, the hardware or the shared state could "
      "not be read or written; 64 the command line is wrong.");
  addDocumentCommands(app, context);
  addHardwareCommands(app, context);
  addRuntimeCommands(app, context);
  addEditCommands(app, context);

  try {
    app.parse(argc, argv);
    return context.status;
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? Exit::success : Exit::usage;
  } catch (const Failure& failure) {
    if (failure.what()[0] != '\0') std::cerr << "brisolactl: " << failure.what() << '\n';
    return failure.status();
  } catch (const ConfigEditError& error) {
    std::cerr << "brisolactl: " << error.what() << '\n';
    return Exit::negative;
  } catch (const std::exception& error) {
    // The store's, file-system and decoding errors, as themselves.
    std::cerr << "brisolactl: " << error.what() << '\n';
    return Exit::unavailable;
  }
}

}  // namespace brisola::ctl
