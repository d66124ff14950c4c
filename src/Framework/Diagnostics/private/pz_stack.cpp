#include "Framework/Diagnostics/pz_stack.h"

void pz_InitStack() {}

void pz_FinStack() {}

int pz_InitThisStack(unsigned int /*size*/) {
    return 1;
}

unsigned int pz_GetUsedStackSize() {
    return 0;
}

unsigned int pz_GetPutativeStackSize() {
    return 0;
}
