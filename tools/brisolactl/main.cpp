#include "brisolactl/ctl.hpp"

int main(int argc, char** argv) {
  return brisola::ctl::main(argc, argv);
}
