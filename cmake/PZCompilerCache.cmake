# Uses ccache where it is installed; a fresh build folder then costs seconds. Headers that are compiled
# beforehand, as those of the tests are, count by their contents. The folder of the build does not count:
# another build of the library, as some tests make, finds what this one has compiled. What is built
# beside the library goes by the dependencies that the compiler writes down: an empty cache then costs no
# second preprocessing.
find_program(PZ_CCACHE ccache)
if(PZ_CCACHE AND PROJECT_IS_TOP_LEVEL AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
    set(CMAKE_CXX_COMPILER_LAUNCHER
        env CCACHE_NOHASHDIR=1 CCACHE_SLOPPINESS=pch_defines,time_macros ${PZ_CCACHE})
    set(PZ_LAUNCHER_BY_DEPENDENCIES ${CMAKE_CXX_COMPILER_LAUNCHER})
    list(INSERT PZ_LAUNCHER_BY_DEPENDENCIES 1 CCACHE_DEPEND=1)
endif()
