#include "Framework/Foundation/PZSingleton.h"

std::list<void (*)()>* PZSingletonFinalizer::destroyList_ = nullptr;

void PZSingletonFinalizer::addDestroyFunc(void (*fn)()) {
    if (destroyList_ == nullptr) destroyList_ = new std::list<void (*)()>;
    destroyList_->push_front(fn);
}

void PZSingletonFinalizer::finalize() {
    if (destroyList_ == nullptr) return;
    // The end is read again after every call: a function may register another one.
    for (auto fn = destroyList_->begin(); fn != destroyList_->end(); ++fn) (*fn)();
    delete destroyList_;
    destroyList_ = nullptr;
}
