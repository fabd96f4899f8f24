# One place for the project's warning policy: warnings are errors in our own code.
function(tcamwrap_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Werror -Wformat=2
                         $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor>)
endfunction()
