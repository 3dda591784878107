# Applied to every target of the project (not to third-party code).
add_compile_options(-Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wno-sign-conversion
                    -Wnon-virtual-dtor -Wold-style-cast -Wimplicit-fallthrough
                    # Records are built with designated initializers that leave defaults out.
                    -Wno-missing-field-initializers)
if(BRISOLA_WERROR)
  add_compile_options(-Werror)
endif()
if(BRISOLA_SANITIZE)
  add_compile_options(-fsanitize=${BRISOLA_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${BRISOLA_SANITIZE})
endif()
