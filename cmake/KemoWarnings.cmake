# Warnings for the project's own code; third-party headers stay quiet.
function(kemo_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wshadow -Wformat=2)
endfunction()
