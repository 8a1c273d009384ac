// Tests of IoThreads: one thread runs the completions, and a standby
// relieves a thread held in code marked busy.
#include "shared/IoThreads.h"

#include <boost/asio/post.hpp>
#include <gtest/gtest.h>

#include <time.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <future>
#include <mutex>
#include <set>
#include <thread>

namespace {

using namespace std::chrono_literals;

// How long a test waits for something that should come at once (long enough
// for sanitizer builds running many tests at a time).
constexpr auto kPatience = 15s;

TEST(IoThreadsTest, QuickHandlersRunOnOneThreadAndStopRunsThemAll) {
  Ipc::IoThreads io(3);
  std::mutex mutex;
  std::set<std::thread::id> threads;  // guarded by mutex
  std::atomic<int> ran{0};
  for (int i = 0; i < 100; ++i) {
    boost::asio::post(io.context(), [&] {
      std::lock_guard<std::mutex> lock(mutex);
      threads.insert(std::this_thread::get_id());
      ++ran;
    });
  }
  io.stop();
  EXPECT_EQ(100, ran.load());
  EXPECT_EQ(1u, threads.size());
  io.stop();
}

// A handler held in code marked busy does not stall the others: a standby
// joins once it has been held for the take-over time, and not before.
TEST(IoThreadsTest, AStandbyRelievesAThreadHeldInBusyCode) {
  auto const takeOver = std::chrono::milliseconds(30);
  Ipc::IoThreads io(2, takeOver);
  std::promise<void> laterRan;
  std::atomic<bool> released{false};
  std::chrono::steady_clock::time_point heldSince;
  std::chrono::steady_clock::duration waited{};
  std::thread::id heldThread, laterThread;
  boost::asio::post(io.context(), [&] {
    Ipc::IoThreads::Busy busy;
    heldThread = std::this_thread::get_id();
    heldSince = std::chrono::steady_clock::now();
    boost::asio::post(io.context(), [&] {
      waited = std::chrono::steady_clock::now() - heldSince;
      laterThread = std::this_thread::get_id();
      laterRan.set_value();
    });
    released = laterRan.get_future().wait_for(kPatience) == std::future_status::ready;
  });
  io.stop();
  EXPECT_TRUE(released.load());
  EXPECT_NE(heldThread, laterThread);
  // Held time is read from the coarse clock: one tick of it may be missing.
  timespec tick{};
  ::clock_getres(CLOCK_MONOTONIC_COARSE, &tick);
  EXPECT_GE(waited, takeOver - std::chrono::seconds(tick.tv_sec) - std::chrono::nanoseconds(tick.tv_nsec));
}

// With every thread held, the next handler waits for one of them.
TEST(IoThreadsTest, TwoHeldThreadsRelieveEachOtherInTurn) {
  Ipc::IoThreads io(2, std::chrono::milliseconds(20));
  std::mutex mutex;
  std::condition_variable changed;
  int held = 0;  // guarded by mutex
  std::atomic<int> ranAfter{0};
  for (int i = 0; i < 2; ++i) {
    boost::asio::post(io.context(), [&] {
      Ipc::IoThreads::Busy busy;
      std::unique_lock<std::mutex> lock(mutex);
      ++held;
      changed.notify_all();
      changed.wait_for(lock, kPatience, [&] { return held == 2; });
    });
  }
  boost::asio::post(io.context(), [&] { ++ranAfter; });
  io.stop();
  EXPECT_EQ(2, held);
  EXPECT_EQ(1, ranAfter.load());
}

}  // namespace
