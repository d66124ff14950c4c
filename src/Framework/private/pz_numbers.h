#ifndef PZ_FRAMEWORK_PRIVATE_PZ_NUMBERS_H
#define PZ_FRAMEWORK_PRIVATE_PZ_NUMBERS_H

/// Frames of the call stack that a report of a misuse shows.
constexpr int kReportedFrames = 10;

/// How much a container holds: interfaces and formats count in 32 bits.
template <typename Container>
unsigned int pz_size32(const Container& container) {
    return static_cast<unsigned int>(container.size());
}

/// An address as the number that is printed.
inline unsigned long pz_address_of(const void* pointer) {
    return reinterpret_cast<unsigned long>(pointer);
}

#endif  // PZ_FRAMEWORK_PRIVATE_PZ_NUMBERS_H
