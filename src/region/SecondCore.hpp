#pragma once

#include <atomic>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>

// A second thread for work that splits in two: Start(job) runs `job` there while the
// caller does its own half, Wait() returns once the job has finished. Callers give each
// side its own slice of input and output, so a result never depends on which side ran
// first or whether a second core was there at all.
class SecondCore {
  public:
    // A started helper thread, or null when the machine has one core or no thread can be
    // started; callers then do both halves themselves.
    [[nodiscard]] static std::unique_ptr<SecondCore> StartIfUseful();

    ~SecondCore();
    SecondCore(const SecondCore&) = delete;
    SecondCore& operator=(const SecondCore&) = delete;

    // `job` must not throw.
    void Start(std::function<void()> job);
    void Wait();
    // Takes the job back if the helper has not begun it, and answers true: the caller then
    // does it itself (or leaves it) and need not Wait. On a busy machine the helper may
    // wait for a core far longer than the job takes, and the caller should not wait too.
    [[nodiscard]] bool TakeBack();

  private:
    SecondCore();
    void Loop();

    std::mutex mutex_;
    std::condition_variable wake_;
    std::function<void()> job_;
    // Written under the mutex, read without it while spinning.
    std::atomic<bool> busy_ = false;
    std::atomic<bool> quit_ = false;
    std::thread thread_; // last, so it starts after the members it uses exist
};
