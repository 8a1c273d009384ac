// The transport's channel, played by a test.
//
// Every operation a command starts is recorded (its kind, its length, the
// bytes of a write) and queued; the test completes the queued operations
// with complete() or completeAll(), the way a connection calls them later from
// its own thread. A channel made with Completion::AtOnce completes each
// operation as soon as it is started instead. Writes are collected in
// written; reads are served from the bytes given to feed(), when they
// complete. A read that the fed bytes cannot fill stays queued, like a read on
// a connection on which the bytes never come.
//
// The calls of the command frame (reqDone, failCmd, finishCmd) are noted in
// calls, and together with the operations ("write N", "read N") in events.
//
// One thread: the test's.
#ifndef QX_TESTS_FAKECHANNEL_H
#define QX_TESTS_FAKECHANNEL_H

#include "shared/CmdChannel.h"
#include "shared/CmdI.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace qxtest {

class FakeChannel final : public Ipc::CmdChannel {
 public:
  enum class Completion { WhenTold, AtOnce };
  enum class Kind { Write, Read };

  struct Op {
    Kind kind;
    std::size_t len;
    std::string bytes;     // a write's data when it was started
    void const* data;      // where a write's data lay
    Ipc::CmdI const* cmd;  // the command the operation was started for
  };

  explicit FakeChannel(Completion completion = Completion::WhenTold) : m_completion(completion) {}
  FakeChannel(FakeChannel const&) = delete;
  FakeChannel& operator=(FakeChannel const&) = delete;

  void reqDone(std::shared_ptr<Ipc::CmdI> const&) override {
    ++reqDones;
    note("reqDone");
  }
  void failCmd(std::shared_ptr<Ipc::CmdI> const& cmd, std::string const& why) override {
    failures.push_back(why);
    failedCmd = cmd.get();
    note("failCmd: " + why);
    if (onFail) onFail();
  }
  void finishCmd(std::shared_ptr<Ipc::CmdI> const& cmd) override {
    ++finishes;
    finishedCmd = cmd.get();
    note("finishCmd");
  }
  void writeAsync(std::shared_ptr<Ipc::CmdI> const& cmd, void const* data, std::size_t len,
                  std::function<void()> done) override {
    written.append(static_cast<char const*>(data), len);
    start(Op{Kind::Write, len, std::string(static_cast<char const*>(data), len), data, cmd.get()},
          cmd, nullptr, std::move(done));
  }
  void readAsync(std::shared_ptr<Ipc::CmdI> const& cmd, void* buf, std::size_t len,
                 std::function<void()> done) override {
    start(Op{Kind::Read, len, std::string(), nullptr, cmd.get()}, cmd, buf, std::move(done));
  }

  // Bytes for the reads to come.
  void feed(std::string const& bytes) { m_input += bytes; }
  std::size_t inputConsumed() const { return m_inputPos; }

  bool pending() const { return !m_pending.empty(); }
  // The oldest queued operation; call only while pending().
  Op const& pendingOp() const { return ops.at(m_pending.front().index); }

  // Completes the oldest queued operation; false when none is queued or it is
  // a read that the fed bytes cannot fill. A write's data must still hold the
  // bytes it held when the write was started.
  bool complete() {
    if (m_pending.empty()) return false;
    Op const& op = ops[m_pending.front().index];
    if (op.kind == Kind::Read) {
      if (m_input.size() - m_inputPos < op.len) return false;
      std::memcpy(m_pending.front().buf, m_input.data() + m_inputPos, op.len);
      m_inputPos += op.len;
    } else {
      EXPECT_EQ(std::string(static_cast<char const*>(op.data), op.len), op.bytes)
          << "the data of write " << m_pending.front().index << " changed before it completed";
    }
    Pending p = std::move(m_pending.front());
    m_pending.pop_front();
    p.done();
    return true;  // p, and the command reference it holds, go now, as in the transport
  }

  // Completes operations until one cannot be completed.
  void completeAll() {
    while (complete()) {
    }
  }

  std::vector<std::string> writes() const {
    std::vector<std::string> out;
    for (Op const& op : ops) {
      if (op.kind == Kind::Write) out.push_back(op.bytes);
    }
    return out;
  }

  std::vector<std::size_t> readLengths() const {
    std::vector<std::size_t> out;
    for (Op const& op : ops) {
      if (op.kind == Kind::Read) out.push_back(op.len);
    }
    return out;
  }

  std::vector<Op> ops;
  std::string written;               // the bytes of every write, in order
  std::vector<std::string> calls;    // "reqDone", "failCmd: why", "finishCmd"
  std::vector<std::string> events;   // calls and "write N", "read N", in order
  int reqDones = 0;
  int finishes = 0;
  Ipc::CmdI const* finishedCmd = nullptr;
  Ipc::CmdI const* failedCmd = nullptr;
  std::vector<std::string> failures;
  int overlaps = 0;              // operations started while another was queued
  std::function<void()> onOp;    // called at the start of every read and write
  std::function<void()> onFail;  // called when the command fails

 private:
  struct Pending {
    std::size_t index;
    std::shared_ptr<Ipc::CmdI> cmd;
    void* buf;
    std::function<void()> done;
  };

  void note(std::string call) {
    events.push_back(call);
    calls.push_back(std::move(call));
  }

  void start(Op op, std::shared_ptr<Ipc::CmdI> const& cmd, void* buf, std::function<void()> done) {
    events.push_back((op.kind == Kind::Write ? "write " : "read ") + std::to_string(op.len));
    if (onOp) onOp();
    if (!m_pending.empty()) ++overlaps;
    ops.push_back(std::move(op));
    m_pending.push_back(Pending{ops.size() - 1, cmd, buf, std::move(done)});
    if (m_completion == Completion::AtOnce) complete();
  }

  Completion const m_completion;
  std::deque<Pending> m_pending;
  std::string m_input;
  std::size_t m_inputPos = 0;
};

}  // namespace qxtest

#endif  // QX_TESTS_FAKECHANNEL_H
