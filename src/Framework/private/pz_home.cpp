#include "pz_home.h"

#include <pthread.h>

unsigned int pz_forks = 0;

[[maybe_unused]] static const bool isToldOfForks =
    pthread_atfork(nullptr, nullptr, [] { ++pz_forks; }) == 0;
