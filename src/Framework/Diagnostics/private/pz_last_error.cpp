#include "Framework/Diagnostics/pz_last_error.h"

#include <cerrno>
#include <cstring>

void pz_clear_last_err() {
    errno = 0;
}

int pz_get_last_err() {
    return errno;
}

const char* pz_get_last_err_string() {
    return std::strerror(errno);
}
