#include "service/brisola_service.hpp"

int main(int argc, char** argv) {
  return brisola::BrisolaService::main(argc, argv);
}
