# Every target of the project gets the same warning set through this function.
function(stonewall_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra)
  if(STONEWALL_WERROR)
    target_compile_options(${target} PRIVATE -Werror)
  endif()
endfunction()
