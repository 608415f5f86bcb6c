// Several threads working on the same objects for a bounded time, with a watchdog.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <string>
#include <vector>

namespace testsupport {

struct StressJob {
    std::string name;
    // One round of operations; true when every result was the expected one.
    std::function<bool()> round;
};

struct StressOutcome {
    std::string name;
    std::size_t rounds = 0;
    std::size_t lateRounds = 0;  // finished in the second half of the run
    std::size_t failedRounds = 0;
    std::string firstError;  // what the first throwing round threw
};

// Runs every job on a thread of its own, round after round, all starting together, for
// `duration` (multiplied by FOUNDATION_STRESS_SCALE when that is set, for long runs by hand).
// A job still inside a round long after the end is taken for a deadlock: the process says which
// and exits with a failure, so a hang fails the run instead of stalling it.
std::vector<StressOutcome> runStress(const std::vector<StressJob>& jobs,
                                     std::chrono::milliseconds duration);

// Every job finished rounds in both halves of the run, and none failed.
void expectHealthy(const std::vector<StressOutcome>& outcomes);

}  // namespace testsupport
