# Uses ccache where it is installed; a fresh build folder then costs seconds.
find_program(PZ_CCACHE ccache)
if(PZ_CCACHE AND PROJECT_IS_TOP_LEVEL AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
    set(CMAKE_CXX_COMPILER_LAUNCHER ${PZ_CCACHE})
endif()
