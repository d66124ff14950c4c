# One switch for everything that is built: the library, the tests and the examples.
if(PZ_SANITIZE)
    add_compile_options(-fsanitize=${PZ_SANITIZE} -fno-sanitize-recover=all)
    add_link_options(-fsanitize=${PZ_SANITIZE})
endif()

# How the sanitizers run in tests.
set(PZ_TEST_ENVIRONMENT
    "ASAN_OPTIONS=detect_leaks=1:strict_string_checks=1:detect_stack_use_after_return=1"
    "UBSAN_OPTIONS=print_stacktrace=1"
    "TSAN_OPTIONS=detect_deadlocks=1:second_deadlock_stack=1")
