# One place for the warning set of every target of the project.
function(kora_warnings target)
  target_compile_options(${target} PRIVATE
    -Wall -Wextra -Wformat=2 -Wshadow -Wimplicit-fallthrough)
endfunction()
