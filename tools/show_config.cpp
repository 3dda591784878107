// Loads a configuration document through the store (creating the empty one when there is
// none), prints it in the library's JSON form, then prints its validation result.
//
// Usage: brisola-show-config [PATH]   (default: BRISOLA_CONFIG_PATH, else the store's default)

#include <cstdlib>
#include <iostream>

#include "brisola/model/json_coding.hpp"
#include "brisola/store/config_store.hpp"

int main(int argc, char** argv) {
  using namespace brisola;
  try {
    auto fileManager = FileManager::defaultManager();
    const char* fromEnvironment = std::getenv("BRISOLA_CONFIG_PATH");
    std::filesystem::path url = argc > 1 ? std::filesystem::path(argv[1])
                                : fromEnvironment != nullptr && fromEnvironment[0] != '\0'
                                    ? std::filesystem::path(fromEnvironment)
                                    : ConfigStore::defaultURL(*fileManager);
    ConfigStore store(url, fileManager);
    ConfigSnapshot snapshot = store.loadOrCreateEmpty();
    std::cout << "Document at " << url.string() << ":\n" << encodeJSON(snapshot) << "\n";
    std::cout << "Validation:\n" << encodeJSON(store.validator().validate(snapshot)) << "\n";
    return 0;
  } catch (const std::exception& error) {
    std::cerr << "brisola-show-config: " << error.what() << "\n";
    return 1;
  }
}
