#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <iostream>
#include <utility>
#include <vector>

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

namespace {

// Edits, with a swap of neighbours counting as one ("devcies" is one step from "devices").
std::size_t editDistance(std::string_view a, std::string_view b) {
  std::vector<std::vector<std::size_t>> d(a.size() + 1, std::vector<std::size_t>(b.size() + 1));
  for (std::size_t i = 0; i <= a.size(); ++i) d[i][0] = i;
  for (std::size_t j = 0; j <= b.size(); ++j) d[0][j] = j;
  for (std::size_t i = 1; i <= a.size(); ++i) {
    for (std::size_t j = 1; j <= b.size(); ++j) {
      d[i][j] = std::min(
          {d[i - 1][j] + 1, d[i][j - 1] + 1, d[i - 1][j - 1] + (a[i - 1] == b[j - 1] ? 0 : 1)});
      if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1]) {
        d[i][j] = std::min(d[i][j], d[i - 2][j - 2] + 1);
      }
    }
  }
  return d[a.size()][b.size()];
}

const CLI::Option* findOption(const CLI::App* level, const std::string& name) {
  for (; level != nullptr; level = level->get_parent()) {
    if (const CLI::Option* option = level->get_option_no_throw(name)) return option;
  }
  return nullptr;
}

// After a failed parse: the first word that is neither an option, an option's value nor a
// command of the level it stands on, when that level takes commands and no positionals.
std::optional<std::string> unknownCommand(CLI::App& app, int argc, char** argv) {
  CLI::App* level = &app;
  for (int i = 1; i < argc; ++i) {
    const std::string word = argv[i];
    if (word == "--") return std::nullopt;
    if (word.size() > 1 && word[0] == '-') {
      const CLI::Option* option = findOption(level, word);
      if (word.find('=') == std::string::npos && option != nullptr &&
          option->get_items_expected_min() > 0) {
        ++i;
      }
      continue;
    }
    const auto commands = level->get_subcommands([](CLI::App*) { return true; });
    const auto named = std::find_if(commands.begin(), commands.end(),
                                    [&](CLI::App* command) { return command->check_name(word); });
    if (named != commands.end()) {
      level = *named;
      continue;
    }
    const auto positionals =
        std::as_const(*level).get_options([](const CLI::Option* o) { return o->get_positional(); });
    if (commands.empty() || !positionals.empty()) return std::nullopt;
    std::string best;
    std::size_t bestDistance = std::max<std::size_t>(2, word.size() / 3) + 1;
    for (const CLI::App* command : commands) {
      const std::size_t distance = editDistance(word, command->get_name());
      if (distance < bestDistance) {
        best = command->get_name();
        bestDistance = distance;
      }
    }
    std::string help = "brisolactl";
    for (const CLI::App* at = level; at->get_parent() != nullptr; at = at->get_parent()) {
      help.insert(10, " " + at->get_name());
    }
    return "unknown command '" + word + "'; " +
           (best.empty() ? "see " + help + " --help" : "did you mean '" + best + "'?");
  }
  return std::nullopt;
}

}  // namespace

int main(int argc, char** argv) {
  // Beyond a file-size limit a write then fails with EFBIG ("File too large") and the save
  // cleans up, instead of the signal killing the tool midway without a word.
  std::signal(SIGXFSZ, SIG_IGN);
  Context context;
  CLI::App app{
      "Inspects and edits Brisola's virtual audio devices: the configuration document, "
      "the audio hardware, and the live state the service shares.",
      "brisolactl"};
  app.set_version_flag("--version", "brisolactl " + std::string(BRISOLA_VERSION));
  app.add_option("--config", context.configOption,
                 "The configuration document. Default: BRISOLA_CONFIG_PATH when set and not "
                 "empty, else the service's default location.");
  app.add_flag("--force", context.force,
               "Edits: save the change even when it adds validation errors to the document.");
  app.require_subcommand(1);
  // --config may follow the subcommand too.
  app.fallthrough();
  app.footer(
      "Output is JSON on standard output (DOT for graph). Exit status: 0 success; 1 the answer "
      "is no (validation errors, no meter reading, service not alive) or the edit was refused, "
      "also when it would add validation errors and --force is not given (the document is "
      "left untouched); 2 the document, the hardware or the shared state could "
      "not be read or written; 64 the command line is wrong.");
  addDocumentCommands(app, context);
  addHardwareCommands(app, context);
  addRuntimeCommands(app, context);
  addEditCommands(app, context);
  addListCommands(app, context);

  try {
    app.parse(argc, argv);
    return context.status;
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() != 0) {
      if (auto message = unknownCommand(app, argc, argv)) {
        std::cerr << "brisolactl: " << *message << '\n';
        return Exit::usage;
      }
    }
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
