// Helpers of the transport tests: the commands that exist only there, and
// the processor that serves them. Each command records the operations of
// the command frame that the transport calls on it, in its processor's
// recorder, so that the order of those calls can be checked on both sides.
#ifndef QX_TESTS_TRANSPORTTESTCMDS_H
#define QX_TESTS_TRANSPORTTESTCMDS_H

#include "shared/CmdClient.h"
#include "shared/CmdI.h"
#include "shared/JsonCmdBase.h"
#include "shared/transport/Wire.h"

#include "tests/WireBytes.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace transporttest {

using namespace std::chrono_literals;
using Ipc::CmdI;
using qxtest::requestFrame;

// How long a test waits for something that should come at once (long enough
// for sanitizer builds running many tests at a time).
constexpr auto kPatience = 15s;

// A length on the wire: 4 bytes, little-endian.
inline std::string u32(std::uint32_t v) {
  unsigned char out[4];
  Ipc::wire::putU32(out, v);
  return qxtest::wireBytes(out, 4);
}


// The calls made on the commands of one side, in order.
class Recorder {
 public:
  void add(std::string call) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_calls.push_back(std::move(call));
    m_changed.notify_all();
  }
  std::vector<std::string> calls() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_calls;
  }
  // Waits until at least n calls are recorded; false after kPatience.
  bool waitFor(std::size_t n) const {
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_changed.wait_for(lock, kPatience, [&] { return m_calls.size() >= n; });
  }
 private:
  mutable std::mutex m_mutex;
  mutable std::condition_variable m_changed;
  std::vector<std::string> m_calls;
};

// Holds the service's slow commands until the test lets them go, one permit
// each.
class Gate {
 public:
  void enter() {
    std::unique_lock<std::mutex> lock(m_mutex);
    ++m_entered;
    m_changed.notify_all();
    m_changed.wait(lock, [&] { return m_permits > 0; });
    --m_permits;
    ++m_left;
    m_changed.notify_all();
  }
  bool waitEntered(int n) {
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_changed.wait_for(lock, kPatience, [&] { return m_entered >= n; });
  }
  // Waits until n commands have passed the gate.
  bool waitLeft(int n) {
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_changed.wait_for(lock, kPatience, [&] { return m_left >= n; });
  }
  void release(int permits = 1) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_permits += permits;
    m_changed.notify_all();
  }

 private:
  std::mutex m_mutex;
  std::condition_variable m_changed;
  int m_entered = 0;
  int m_permits = 0;
  int m_left = 0;
};

class StreamCmd;

class TestProcessor : public Ipc::CmdProcessorI {
 public:
  // Told of each line that a StreamCmd received.
  void processCmd(std::shared_ptr<CmdI> cmd) override;

  Recorder calls;
  Gate gate;
  std::atomic<int> served{0};
};

enum : CmdI::TypeCode {
  kEcho = 1,
  kBare = 2,
  kPing = 3,
  kThrowing = 4,
  kStream = 5,
  kSlow = 6,
  kBroken = 7,  // the factory throws
  kFailing = 8,
  kBig = 9,
  kSize = 10,
  kUnknown = 200,
};

// Records every operation of the frame, then runs the base version. The
// request and the response are JSON objects; the service answers with the
// request unless a derived class serves otherwise.
class RecordingCmd : public Ipc::JsonCmdBase {
 public:
  RecordingCmd(std::shared_ptr<Ipc::CmdProcessorI> processor, TypeCode type)
      : JsonCmdBase(std::move(processor), type) {}

  ~RecordingCmd() override { record("destroyed"); }
  void onTransferError(std::string why) override {
    record("onTransferError:" + why);
    JsonCmdBase::onTransferError(std::move(why));
  }
  void sendReq() override {
    record("sendReq");
    JsonCmdBase::sendReq();
  }
  void readReq() override {
    record("readReq");
    JsonCmdBase::readReq();
  }
  void sendResp() override {
    record("sendResp");
    JsonCmdBase::sendResp();
  }
  void readResp() override {
    record("readResp");
    JsonCmdBase::readResp();
  }
  void accept(Ipc::CmdProcessorI& processor) override {
    record("accept");
    auto& p = dynamic_cast<TestProcessor&>(processor);
    ++p.served;
    serve(p);
  }
  json::Object serializeReq() const override {
    record("serializeReq");
    return request;
  }
  void sendReqDone() override {
    record("sendReqDone");
    JsonCmdBase::sendReqDone();
  }
  void deserializeReq(json::Object const& obj) override {
    record("deserializeReq");
    request = obj;
  }
  void readReqDone() override {
    record("readReqDone");
    JsonCmdBase::readReqDone();
  }
  json::Object serializeResp() const override {
    record("serializeResp");
    return response;
  }
  void sendRespDone() override {
    record("sendRespDone");
    JsonCmdBase::sendRespDone();
  }
  void deserializeResp(json::Object const& obj) override {
    record("deserializeResp");
    response = obj;
  }
  void readRespDone() override {
    record("readRespDone");
    JsonCmdBase::readRespDone();
  }

  // The service's work: the response is the request.
  virtual void serve(TestProcessor&) { response = request; }

  void record(std::string call) const {
    static_cast<TestProcessor&>(*processor()).calls.add(std::move(call));
  }

  json::Object request;
  json::Object response;
};

class EchoCmd : public RecordingCmd {
 public:
  explicit EchoCmd(std::shared_ptr<Ipc::CmdProcessorI> processor, TypeCode type = kEcho)
      : RecordingCmd(std::move(processor), type) {}
  char const* name() const override { return "Echo"; }
};

// A request without a body, as the small status commands send it; the
// response is still JSON.
class BareCmd : public RecordingCmd {
 public:
  explicit BareCmd(std::shared_ptr<Ipc::CmdProcessorI> processor) : RecordingCmd(std::move(processor), kBare) {}
  char const* name() const override { return "Bare"; }
  void sendReq() override {
    record("sendReq");
    CmdI::sendReq();
  }
  void readReq() override {
    record("readReq");
    CmdI::readReq();
  }
  void serve(TestProcessor&) override { response.setAt(FIELD_RESP, json::Value("pong")); }
};

// Neither request nor response has a body: all CmdI defaults.
class PingCmd : public CmdI {
 public:
  explicit PingCmd(std::shared_ptr<Ipc::CmdProcessorI> processor) : CmdI(std::move(processor), kPing) {}
  ~PingCmd() override { record("destroyed"); }
  char const* name() const override { return "Ping"; }
  void sendReq() override {
    record("sendReq");
    CmdI::sendReq();
  }
  void readReq() override {
    record("readReq");
    CmdI::readReq();
  }
  void sendResp() override {
    record("sendResp");
    CmdI::sendResp();
  }
  void readResp() override {
    record("readResp");
    CmdI::readResp();
  }
  void accept(Ipc::CmdProcessorI& processor) override {
    record("accept");
    ++dynamic_cast<TestProcessor&>(processor).served;
  }

 private:
  void record(std::string call) const {
    static_cast<TestProcessor&>(*processor()).calls.add(std::move(call));
  }
};

// Its request reader insists on a member that the request lacks.
class ThrowingCmd : public RecordingCmd {
 public:
  explicit ThrowingCmd(std::shared_ptr<Ipc::CmdProcessorI> processor)
      : RecordingCmd(std::move(processor), kThrowing) {}
  char const* name() const override { return "Throwing"; }
  void deserializeReq(json::Object const& obj) override {
    record("deserializeReq");
    request = obj;
    (void)obj["count"].asInt();
  }
};

// Its handler in the service fails.
class FailingCmd : public RecordingCmd {
 public:
  explicit FailingCmd(std::shared_ptr<Ipc::CmdProcessorI> processor)
      : RecordingCmd(std::move(processor), kFailing) {}
  char const* name() const override { return "Failing"; }
  void serve(TestProcessor&) override { throw std::runtime_error("the disk is full"); }
};

// Its response is one byte over the limit of a body.
class BigCmd : public RecordingCmd {
 public:
  explicit BigCmd(std::shared_ptr<Ipc::CmdProcessorI> processor) : RecordingCmd(std::move(processor), kBig) {}
  char const* name() const override { return "Big"; }
  void serve(TestProcessor&) override {
    response = textObject(std::string(MAX_BODY + 1 - std::string(R"({"text":""})").size(), 'x'));
  }

 private:
  static json::Object textObject(std::string const& text) {
    json::Object obj;
    obj.setAt("text", json::Value(text));
    return obj;
  }
};

// Answers with the length of the request's text only.
class SizeCmd : public RecordingCmd {
 public:
  explicit SizeCmd(std::shared_ptr<Ipc::CmdProcessorI> processor) : RecordingCmd(std::move(processor), kSize) {}
  char const* name() const override { return "Size"; }
  void serve(TestProcessor&) override {
    response.setAt("size", json::Value(json_int_t(request["text"].asStringSafe().size())));
  }
};

// Its request cannot be written.
class UnwritableCmd : public RecordingCmd {
 public:
  explicit UnwritableCmd(std::shared_ptr<Ipc::CmdProcessorI> processor) : RecordingCmd(std::move(processor), kEcho) {}
  char const* name() const override { return "Unwritable"; }
  json::Object serializeReq() const override { throw json::Exc("JSON error: no request today"); }
};

// Its response is a stream of lines written straight to the channel: each a
// 4-byte length and its text, the last an empty one.
class StreamCmd : public RecordingCmd {
 public:
  explicit StreamCmd(std::shared_ptr<Ipc::CmdProcessorI> processor) : RecordingCmd(std::move(processor), kStream) {}
  char const* name() const override { return "Stream"; }

  void sendResp() override {
    record("sendResp");
    writeLine(0);
  }
  void readResp() override {
    record("readResp");
    readLine();
  }
  // {"count": n}: "line 1" to "line n"; with "width": w, lines of w bytes.
  void serve(TestProcessor&) override {
    json_int_t const width = request["width"].isInteger() ? request["width"].asInt() : 0;
    for (json_int_t i = 1; i <= request["count"].asInt(); ++i) {
      lines.push_back(width ? std::string(static_cast<std::size_t>(width), 'x') : "line " + std::to_string(i));
    }
  }

  std::vector<std::string> lines;  // to send (service) or received (user interface)

 private:
  void writeLine(std::size_t i) {
    if (i > lines.size()) {
      channel()->finishCmd(shared_from_this());
      return;
    }
    std::string const text = i < lines.size() ? lines[i] : std::string();
    m_out = u32(static_cast<std::uint32_t>(text.size())) + text;
    channel()->writeAsync(shared_from_this(), m_out.data(), m_out.size(), [this, i] { writeLine(i + 1); });
  }
  void readLine() {
    channel()->readAsync(shared_from_this(), m_len, sizeof m_len, [this] {
      std::uint32_t const len = Ipc::wire::getU32(m_len);
      if (len == 0) {
        channel()->finishCmd(shared_from_this());
        return;
      }
      m_in.assign(len, '\0');
      channel()->readAsync(shared_from_this(), &m_in[0], len, [this] {
        lines.push_back(m_in);
        processor()->processCmd(shared_from_this());
        readLine();
      });
    });
  }

  std::string m_out;
  std::string m_in;
  unsigned char m_len[4] = {};
};

inline void TestProcessor::processCmd(std::shared_ptr<CmdI> cmd) {
  auto const stream = std::dynamic_pointer_cast<StreamCmd>(cmd);
  calls.add("processCmd:" + (stream ? stream->lines.back() : std::string("?")));
}

// The service holds it at the processor's gate.
class SlowCmd : public RecordingCmd {
 public:
  explicit SlowCmd(std::shared_ptr<Ipc::CmdProcessorI> processor, int timeoutId = TIMEOUT_QUICK)
      : RecordingCmd(std::move(processor), kSlow), m_timeoutId(timeoutId) {}
  char const* name() const override { return "Slow"; }
  int reqTimeoutId() const override { return m_timeoutId; }
  void serve(TestProcessor& p) override {
    p.gate.enter();
    response = request;
  }

 private:
  int const m_timeoutId;
};

// User-interface side only: sends a request frame of its own making (any type
// code and flags, then the given bytes) and then, unless it stalls, reads a
// JSON response.
class RawReqCmd : public RecordingCmd {
 public:
  RawReqCmd(std::shared_ptr<Ipc::CmdProcessorI> processor, TypeCode type, std::uint8_t flags,
            std::string after, bool stall = false)
      : RecordingCmd(std::move(processor), type),
        m_bytes(requestFrame(type, flags) + std::move(after)),
        m_stall(stall) {}
  char const* name() const override { return "Raw"; }
  void sendReq() override {
    record("sendReq");
    channel()->writeAsync(shared_from_this(), m_bytes.data(), m_bytes.size(), [this] {
      if (!m_stall) channel()->reqDone(shared_from_this());
    });
  }

 private:
  std::string const m_bytes;
  bool const m_stall;
};

inline std::shared_ptr<CmdI> buildCmd(CmdI::TypeCode type, std::shared_ptr<Ipc::CmdProcessorI> const& p) {
  switch (type) {
    case kEcho: return std::make_shared<EchoCmd>(p);
    case kBare: return std::make_shared<BareCmd>(p);
    case kPing: return std::make_shared<PingCmd>(p);
    case kThrowing: return std::make_shared<ThrowingCmd>(p);
    case kStream: return std::make_shared<StreamCmd>(p);
    case kSlow: return std::make_shared<SlowCmd>(p);
    case kBroken: throw std::runtime_error("no such command here");
    case kFailing: return std::make_shared<FailingCmd>(p);
    case kBig: return std::make_shared<BigCmd>(p);
    case kSize: return std::make_shared<SizeCmd>(p);
    default: return nullptr;
  }
}

inline json::Object textObject(std::string const& text) {
  json::Object obj;
  obj.setAt("text", json::Value(text));
  return obj;
}

inline std::shared_ptr<EchoCmd> echo(std::shared_ptr<TestProcessor> const& p, std::string const& text) {
  auto cmd = std::make_shared<EchoCmd>(p);
  cmd->request = textObject(text);
  return cmd;
}

}  // namespace transporttest

#endif  // QX_TESTS_TRANSPORTTESTCMDS_H
