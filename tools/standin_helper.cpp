// Development stand-in for the real audio helpers, which are not part of this project. It
// prints one line naming its kind and the route variables it was given, then runs until
// SIGTERM or SIGINT and exits 0. Built three times, once per helper name.

#include <signal.h>

#include <cstdio>
#include <cstring>
#include <map>
#include <string>

extern char** environ;

#ifndef BRISOLA_HELPER_NAME
#error "BRISOLA_HELPER_NAME must name the helper"
#endif
#ifndef BRISOLA_HELPER_PREFIX
#error "BRISOLA_HELPER_PREFIX must give the prefix of its variables"
#endif

int main() {
  sigset_t stop;
  sigemptyset(&stop);
  sigaddset(&stop, SIGTERM);
  sigaddset(&stop, SIGINT);
  // Blocked before anything else so a terminate request cannot slip past sigwait.
  sigprocmask(SIG_BLOCK, &stop, nullptr);

  std::map<std::string, std::string> variables;
  const std::size_t prefixLength = std::strlen(BRISOLA_HELPER_PREFIX);
  for (char** entry = environ; *entry != nullptr; ++entry) {
    std::string text(*entry);
    if (text.compare(0, prefixLength, BRISOLA_HELPER_PREFIX) != 0) continue;
    auto equals = text.find('=');
    variables[text.substr(0, equals)] = equals == std::string::npos ? "" : text.substr(equals + 1);
  }
  std::string line = std::string(BRISOLA_HELPER_NAME) + " (development stand-in):";
  for (const auto& [name, value] : variables) line += " " + name + "=" + value;
  std::printf("%s\n", line.c_str());
  std::fflush(stdout);

  int received = 0;
  sigwait(&stop, &received);
  return 0;
}
