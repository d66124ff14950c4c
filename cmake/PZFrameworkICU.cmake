# PZFramework::icu: the library, and ICU's i18n library beside it for programs that detect code
# pages. Made only where ICU with its headers is found. Used in the source tree and by the installed
# package.
#
# Programs call nothing of ICU themselves, so a linker that drops unneeded libraries (--as-needed)
# would drop it; the options are one item so that nothing gets between them.
find_package(ICU QUIET COMPONENTS i18n)
if(ICU_FOUND AND NOT TARGET PZFramework::icu)
    add_library(PZFramework::icu INTERFACE IMPORTED)
    target_link_libraries(PZFramework::icu INTERFACE
        PZFramework::pzframework
        "-Wl,--push-state,--no-as-needed,$<TARGET_FILE:ICU::i18n>,--pop-state")
endif()
