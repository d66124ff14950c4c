#include "Framework/Foundation/PZSingleton.h"

std::list<void (*)()>* PZSingletonFinalizer::destroyList_ = nullptr;

void PZSingletonFinalizer::addDestroyFunc(void (*fn)()) {
    // An empty list that is left by a failing push_front serves the next registration.
    if (destroyList_ == nullptr) destroyList_ = new std::list<void (*)()>;
    destroyList_->push_front(fn);
}

void PZSingletonFinalizer::finalize() {
    if (destroyList_ == nullptr) return;
    // A function registered meanwhile stands in front of the present one: it is not reached, and
    // forgotten with the others.
    for (void (*const fn)() : *destroyList_) fn();
    delete destroyList_;
    destroyList_ = nullptr;
}
