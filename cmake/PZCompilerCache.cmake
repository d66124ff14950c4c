# Uses ccache where it is installed; a fresh build folder then costs seconds. Headers that are compiled
# beforehand, as those of the tests are, count by their contents.
find_program(PZ_CCACHE ccache)
if(PZ_CCACHE AND PROJECT_IS_TOP_LEVEL AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
    set(CMAKE_CXX_COMPILER_LAUNCHER ${PZ_CCACHE})
    if(NOT CMAKE_DISABLE_PRECOMPILE_HEADERS)
        list(PREPEND CMAKE_CXX_COMPILER_LAUNCHER env CCACHE_SLOPPINESS=pch_defines,time_macros)
    endif()
endif()
