# Whole-build sanitizers: every target, the tests and the tools, is instrumented alike.
if(KELO_SANITIZE)
  string(REPLACE ";" "," kelo_sanitize_list "${KELO_SANITIZE}")
  add_compile_options(-fsanitize=${kelo_sanitize_list} -fno-omit-frame-pointer -g)
  add_link_options(-fsanitize=${kelo_sanitize_list})
  if(kelo_sanitize_list MATCHES "undefined")
    add_compile_options(-fno-sanitize-recover=undefined)
  endif()
endif()
