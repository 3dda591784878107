# Applied to every target of the project (not to third-party code).
add_compile_options(-Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wno-sign-conversion
                    -Wnon-virtual-dtor -Wold-style-cast -Wimplicit-fallthrough
                    # Records are built with designated initializers that leave defaults out.
                    -Wno-missing-field-initializers)
if(BRISOLA_WERROR)
  add_compile_options(-Werror)
endif()
if(BRISOLA_SANITIZE)
  set(_brisola_sanitizers ${BRISOLA_SANITIZE})
  # 'undefined' leaves out a double too large for a float, which the gains must never do.
  if(_brisola_sanitizers MATCHES "undefined")
    string(APPEND _brisola_sanitizers ",float-cast-overflow")
  endif()
  add_compile_options(-fsanitize=${_brisola_sanitizers} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${_brisola_sanitizers})
endif()
