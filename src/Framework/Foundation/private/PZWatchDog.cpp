#include "Framework/Foundation/PZWatchDog.h"

template class PZSingleton<PZWatchDog>;

PZWatchDog::PZWatchDog() = default;

PZWatchDog::~PZWatchDog() = default;

void PZWatchDog::DelInstance() {}

bool PZWatchDog::start() {
    return true;
}

void PZWatchDog::stop() {}

void PZWatchDog::IntoWait() {}

void PZWatchDog::OutWait() {}

int PZWatchDog::Initialize() {
    return 0;
}

void PZWatchDog::MainProc() {}

void PZWatchDog::Finalize() {}

void PZWatchDog::checkOccupationTime() {}
