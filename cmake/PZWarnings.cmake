# pz_warnings: how strict we are with our own code. Never handed on to users of the library.
add_library(pz_warnings INTERFACE)
target_compile_options(pz_warnings INTERFACE
    -Wall -Wextra -Wpedantic -Wconversion -Wshadow
    -Wnon-virtual-dtor -Woverloaded-virtual -Wformat=2
    $<$<CXX_COMPILER_ID:Clang>:-Wthread-safety>
    $<$<BOOL:${PZ_WERROR}>:-Werror>)
