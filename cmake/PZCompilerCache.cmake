# Uses ccache where it is installed; a fresh build folder then costs seconds. Headers that are compiled
# beforehand, as those of the tests are, count by their contents. The folder of the build does not count:
# another build of the library, as some tests make, finds what this one has compiled.
find_program(PZ_CCACHE ccache)
if(PZ_CCACHE AND PROJECT_IS_TOP_LEVEL AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
    set(CMAKE_CXX_COMPILER_LAUNCHER env CCACHE_NOHASHDIR=1 ${PZ_CCACHE})
    if(NOT CMAKE_DISABLE_PRECOMPILE_HEADERS)
        list(INSERT CMAKE_CXX_COMPILER_LAUNCHER 1 CCACHE_SLOPPINESS=pch_defines,time_macros)
    endif()
endif()
