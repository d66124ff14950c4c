# One switch for everything that is built: the library, the tests and the examples.
if(PZ_SANITIZE)
    add_compile_options(-fsanitize=${PZ_SANITIZE} -fno-sanitize-recover=all)
    add_link_options(-fsanitize=${PZ_SANITIZE})
endif()
