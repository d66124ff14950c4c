#ifndef PZ_BENCHMARKS_PEERS_CHECKED_H
#define PZ_BENCHMARKS_PEERS_CHECKED_H

#include <benchmark/benchmark.h>

namespace pzbench {

/// Who does not do the work gets no time: the row is marked and the program fails at its end.
inline void check(benchmark::State& state, bool isRight) {
    if (!isRight) state.SkipWithError("wrong result");
}

}  // namespace pzbench

#endif  // PZ_BENCHMARKS_PEERS_CHECKED_H
