#include "brisola/platform/uuid.hpp"

#include <uuid/uuid.h>

namespace brisola {

std::string makeUUIDString() {
  uuid_t value;
  uuid_generate_random(value);
  char text[37];
  uuid_unparse_upper(value, text);
  return std::string(text, 36);
}

}  // namespace brisola
