# Warnings are per target and PRIVATE, so consumers of the installed package never inherit them.
function(zrn_enable_warnings target)
    target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic)
endfunction()
