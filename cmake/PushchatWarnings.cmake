# Warnings for every target of the project.
function(pushchat_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra)
endfunction()
