# Warnings for everything the project compiles. -Werror is the test
# command's choice (CORVEX_WERROR=ON in tools/check.sh), not a packager's:
# a newer compiler's new warning must not break a release build.
option(CORVEX_WERROR "Treat compiler warnings as errors" OFF)

function(corvex_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra $<$<BOOL:${CORVEX_WERROR}>:-Werror>)
endfunction()
