// Tests of Deadline, the time limit of a connection's operation: when it
// fires, that moving it holds it off, that clear() and cancel() stop it, and
// that a wait keeps its owner alive only while it lasts.
#include "shared/transport/Deadline.h"

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/post.hpp>
#include <gtest/gtest.h>

#include <time.h>

#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <optional>
#include <thread>

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using Ipc::transport::Deadline;
using Ipc::transport::Strand;

constexpr auto kPatience = 15s;
constexpr std::chrono::milliseconds kLimit{100};

// How much earlier than its limit a deadline may fire: deadlines are read
// from the coarse clock, which lags by up to a tick, and whose update at the
// tick may itself come late (seen here: a quarter of a millisecond on a
// loaded machine). Two ticks cover both.
Clock::duration earliness() {
  timespec tick{};
  ::clock_getres(CLOCK_MONOTONIC_COARSE, &tick);
  return 2 * (std::chrono::seconds(tick.tv_sec) + std::chrono::nanoseconds(tick.tv_nsec));
}

// A deadline on a strand whose io_context runs on a thread of its own, as a
// connection has it. The test's calls go through onStrand().
class DeadlineTest : public ::testing::Test {
 protected:
  DeadlineTest() : m_thread([this] { m_io.run(); }) {}
  ~DeadlineTest() override {
    onStrand([&] { deadline.cancel(); });
    m_work.reset();
    m_thread.join();
  }

  // Runs f on the strand and waits for it.
  template <class F>
  void onStrand(F f) {
    std::promise<void> done;
    boost::asio::post(m_strand, [&] {
      f();
      done.set_value();
    });
    done.get_future().wait();
  }
  void arm(std::chrono::milliseconds limit) {
    onStrand([&] { deadline.arm(limit, [&] { return owner; }); });
  }
  // When the deadline fired; nothing when it did not within limit.
  std::optional<Clock::time_point> firedWithin(Clock::duration limit) {
    std::future<Clock::time_point> f = m_fired.get_future();
    if (f.wait_for(limit) != std::future_status::ready) return std::nullopt;
    return f.get();
  }

  boost::asio::io_context m_io;
  Strand m_strand{boost::asio::make_strand(m_io)};
  std::optional<boost::asio::executor_work_guard<boost::asio::io_context::executor_type>> m_work{
      boost::asio::make_work_guard(m_io)};
  std::promise<Clock::time_point> m_fired;
  std::atomic<int> firings{0};
  std::shared_ptr<int> owner = std::make_shared<int>(0);  // what a wait keeps
  Deadline deadline{m_strand, kLimit, [this] {
                      if (firings++ == 0) m_fired.set_value(Clock::now());
                    }};
  std::thread m_thread;  // last: runs the context once all else is made
};

TEST_F(DeadlineTest, ADeadlineThatIsNotMovedFiresOnceItsLimitHasPassed) {
  Clock::time_point const armed = Clock::now();
  arm(kLimit);
  std::optional<Clock::time_point> const fired = firedWithin(kPatience);
  ASSERT_TRUE(fired.has_value()) << "the deadline did not fire";
  EXPECT_GE(*fired - armed, kLimit - earliness());
  EXPECT_EQ(1, firings.load());
  EXPECT_EQ(kLimit, deadline.limit());
}

TEST_F(DeadlineTest, ADeadlineThatIsMovedDoesNotFireEarly) {
  // Moved every 20 ms for half a second, it would have fired five times
  // over if moving it did not count.
  Clock::time_point lastArmed;
  for (Clock::time_point const end = Clock::now() + 500ms; Clock::now() < end;) {
    lastArmed = Clock::now();
    arm(kLimit);
    ASSERT_EQ(0, firings.load()) << "fired while being moved";
    std::this_thread::sleep_for(20ms);
  }
  std::optional<Clock::time_point> const fired = firedWithin(kPatience);
  ASSERT_TRUE(fired.has_value()) << "the deadline did not fire after the last move";
  EXPECT_GE(*fired - lastArmed, kLimit - earliness());
}

TEST_F(DeadlineTest, AShorterLimitArmedLaterFiresFirst) {
  arm(10 * kLimit);
  Clock::time_point const armed = Clock::now();
  arm(kLimit);
  std::optional<Clock::time_point> const fired = firedWithin(kPatience);
  ASSERT_TRUE(fired.has_value()) << "the deadline did not fire";
  EXPECT_GE(*fired - armed, kLimit - earliness());
  EXPECT_LT(*fired - armed, 10 * kLimit);
  EXPECT_EQ(kLimit, deadline.limit());
}

TEST_F(DeadlineTest, AClearedDeadlineDoesNotFire) {
  arm(kLimit);
  onStrand([&] { deadline.clear(); });
  EXPECT_FALSE(firedWithin(4 * kLimit).has_value());
  EXPECT_EQ(0, firings.load());
}

TEST_F(DeadlineTest, ACancelledDeadlineDoesNotFireAndLetsGoOfItsOwner) {
  arm(kLimit);
  EXPECT_EQ(2, owner.use_count());  // the wait holds it
  onStrand([&] { deadline.cancel(); });
  EXPECT_FALSE(firedWithin(4 * kLimit).has_value());
  EXPECT_EQ(0, firings.load());
  EXPECT_EQ(1, owner.use_count());
}

TEST_F(DeadlineTest, AWaitKeepsItsOwnerOnlyUntilItEnds) {
  arm(kLimit);
  EXPECT_EQ(2, owner.use_count());
  ASSERT_TRUE(firedWithin(kPatience).has_value()) << "the deadline did not fire";
  // The handler lets go of what it kept once it has returned.
  onStrand([] {});
  EXPECT_EQ(1, owner.use_count());
}

TEST_F(DeadlineTest, ArmingAgainAfterItFiredFiresAgain) {
  arm(kLimit);
  ASSERT_TRUE(firedWithin(kPatience).has_value()) << "the deadline did not fire";
  arm(kLimit);
  for (Clock::time_point const end = Clock::now() + kPatience; firings.load() < 2 && Clock::now() < end;) {
    std::this_thread::sleep_for(5ms);
  }
  EXPECT_EQ(2, firings.load());
}

}  // namespace
