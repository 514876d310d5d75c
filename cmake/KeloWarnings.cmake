function(kelo_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wformat=2)
endfunction()
