#include "support/Stress.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <thread>

namespace testsupport {

namespace {

// Far beyond the longest round under ThreadSanitizer, short of CI's own timeouts.
constexpr std::chrono::seconds kDeadlockAfter{60};

std::chrono::milliseconds scaled(std::chrono::milliseconds duration) {
    const char* scale = std::getenv("FOUNDATION_STRESS_SCALE");
    const double factor = scale != nullptr ? std::atof(scale) : 1.0;
    return factor > 0 ? std::chrono::milliseconds(
                            static_cast<long long>(static_cast<double>(duration.count()) * factor))
                      : duration;
}

struct JobState {
    std::atomic<std::size_t> rounds{0};
    std::atomic<std::size_t> lateRounds{0};
    std::atomic<std::size_t> failedRounds{0};
    std::atomic<bool> finished{false};
    std::mutex errorMutex;
    std::string firstError;
};

}  // namespace

std::vector<StressOutcome> runStress(const std::vector<StressJob>& jobs,
                                     std::chrono::milliseconds duration) {
    const auto length = scaled(duration);
    std::vector<std::unique_ptr<JobState>> states;
    for (std::size_t i = 0; i < jobs.size(); ++i) states.push_back(std::make_unique<JobState>());
    std::atomic<bool> go{false}, late{false}, stop{false};

    std::vector<std::thread> threads;
    for (std::size_t i = 0; i < jobs.size(); ++i) {
        threads.emplace_back([&, i] {
            JobState& state = *states[i];
            while (!go) std::this_thread::yield();
            while (!stop) {
                bool ok = false;
                try {
                    ok = jobs[i].round();
                } catch (const std::exception& e) {
                    const std::lock_guard<std::mutex> lock(state.errorMutex);
                    if (state.firstError.empty()) state.firstError = e.what();
                }
                ++state.rounds;
                if (late) ++state.lateRounds;
                if (!ok) ++state.failedRounds;
            }
            state.finished = true;
        });
    }

    // The watchdog cannot join a deadlocked thread, so it ends the process instead.
    std::mutex doneMutex;
    std::condition_variable doneSignal;
    bool done = false;
    std::thread watchdog([&] {
        std::unique_lock<std::mutex> lock(doneMutex);
        if (doneSignal.wait_for(lock, length + kDeadlockAfter, [&] { return done; })) return;
        for (std::size_t i = 0; i < jobs.size(); ++i) {
            if (!states[i]->finished) {
                std::fprintf(stderr, "Stress job \"%s\" is stuck: deadlock.\n",
                             jobs[i].name.c_str());
            }
        }
        std::fflush(stderr);
        std::_Exit(EXIT_FAILURE);
    });

    go = true;
    std::this_thread::sleep_for(length / 2);
    late = true;
    std::this_thread::sleep_for(length - length / 2);
    stop = true;
    for (auto& thread : threads) thread.join();
    {
        const std::lock_guard<std::mutex> lock(doneMutex);
        done = true;
    }
    doneSignal.notify_one();
    watchdog.join();

    std::vector<StressOutcome> outcomes;
    for (std::size_t i = 0; i < jobs.size(); ++i) {
        outcomes.push_back({jobs[i].name, states[i]->rounds, states[i]->lateRounds,
                            states[i]->failedRounds, states[i]->firstError});
    }
    return outcomes;
}

void expectHealthy(const std::vector<StressOutcome>& outcomes) {
    for (const StressOutcome& outcome : outcomes) {
        SCOPED_TRACE(outcome.name);
        EXPECT_GT(outcome.rounds - outcome.lateRounds, 0u) << "no progress in the first half";
        EXPECT_GT(outcome.lateRounds, 0u) << "no progress in the second half";
        EXPECT_EQ(outcome.failedRounds, 0u) << outcome.firstError;
    }
}

}  // namespace testsupport
