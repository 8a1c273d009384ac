// The IPC commands of the user interface to the service, without a network:
// names, type codes, time-out identifiers, the factory, the dispatch to the
// processor, the request and response bodies (exact JSON text and exact
// bytes written to a channel), the readers, payload sharing, the server-call
// accessors, the configuration records and the log helper dumpReqOrResp.
#include "ipc/IpcCmdsLite.h"

#include "shared/CmdChannel.h"
#include "shared/transport/Wire.h"

#include "tests/FakeChannel.h"
#include "tests/TestUtil.h"
#include "tests/WireBytes.h"

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <typeinfo>
#include <utility>
#include <vector>

namespace {

using qxtest::FakeChannel;
using qxtest::jsonExcMessage;
using qxtest::parse;
using qxtest::text;

using Ipc::CmdI;
using Ipc::CmdLiteBase;

std::string frame(std::uint8_t type, std::uint8_t flags) { return qxtest::requestFrame(type, flags); }
std::string body(std::string const& json) { return qxtest::jsonBody(json); }
std::string hex(std::string const& bytes) { return qxtest::printable(bytes); }

// A configuration that the user interface would send.
constexpr char kClientCfgText[] =
    R"({"AccountId":"acct-ui","KeyId":3,"SpoolFolder":"/srv/spool","UseDirName":true})";



Settings clientSettings() { return Settings(parse(kClientCfgText)); }

std::shared_ptr<Ipc::CmdProcessorI> anyProcessor() {
  return std::make_shared<Ipc::CmdProcessorLiteI>();
}

using Events = std::vector<std::string>;

// The bytes that cmd writes as its request, and the channel calls it made.
// The channel completes every operation at once, in the calling thread.
std::pair<std::string, Events> requestBytes(std::shared_ptr<CmdI> const& cmd) {
  FakeChannel ch(FakeChannel::Completion::AtOnce);
  cmd->setChannel(&ch);
  cmd->sendReq();
  cmd->setChannel(nullptr);
  return {ch.written, ch.calls};
}

// Reads a request into cmd from the bytes that follow its frame.
Events readRequest(std::shared_ptr<CmdI> const& cmd, bool hasBody, std::string const& input) {
  FakeChannel ch(FakeChannel::Completion::AtOnce);
  ch.feed(input);
  cmd->setChannel(&ch, hasBody);
  cmd->readReq();
  cmd->setChannel(nullptr);
  EXPECT_FALSE(ch.pending()) << cmd->name() << ": a read past the end of the input";
  EXPECT_EQ(input.size(), ch.inputConsumed()) << cmd->name() << ": bytes left unread";
  return ch.calls;
}

std::pair<std::string, Events> responseBytes(std::shared_ptr<CmdI> const& cmd) {
  FakeChannel ch(FakeChannel::Completion::AtOnce);
  cmd->setChannel(&ch);
  cmd->sendResp();
  cmd->setChannel(nullptr);
  return {ch.written, ch.calls};
}

Events readResponse(std::shared_ptr<CmdI> const& cmd, std::string const& input) {
  FakeChannel ch(FakeChannel::Completion::AtOnce);
  ch.feed(input);
  cmd->setChannel(&ch);
  cmd->readResp();
  cmd->setChannel(nullptr);
  EXPECT_FALSE(ch.pending()) << cmd->name() << ": a read past the end of the input";
  EXPECT_EQ(input.size(), ch.inputConsumed()) << cmd->name() << ": bytes left unread";
  return ch.calls;
}

// Dispatches cmd as the service's transport does: through the frame's
// accept(CmdProcessorI&).
void dispatch(CmdI& cmd, Ipc::CmdProcessorI& processor) { cmd.accept(processor); }

// One command class: how the user interface builds one, and what it is.
struct CmdKind {
  char const* label;
  std::function<std::shared_ptr<CmdLiteBase>(std::shared_ptr<Ipc::CmdProcessorI>)> make;
  char const* name;
  int timeoutId;
};

std::vector<CmdKind> const& allKinds() {
  static std::vector<CmdKind> const kinds = {
      {"IsRunning", [](auto p) { return std::make_shared<Ipc::IsRunning>(p); },
       "\"Is Running\"", 2},
      {"GetCfg", [](auto p) { return std::make_shared<Ipc::GetCfg>(p); },
       "\"Get Configuration\"", 2},
      {"SaveCfg", [](auto p) { return std::make_shared<Ipc::SaveCfg>(p, clientSettings()); },
       "\"Save Configuration\"", 2},
      {"Pause", [](auto p) { return std::make_shared<Ipc::Pause>(p, true); }, "Pause", 2},
      {"Resume", [](auto p) { return std::make_shared<Ipc::Resume>(p); }, "Resume", 2},
      {"ServerRequest",
       [](auto p) {
         return std::make_shared<Ipc::ServerRequest>(p, "getQuota", parse(R"({"a":1})"), nullptr);
       },
       "\"Server Call\"", 3},
      {"GetUploads", [](auto p) { return std::make_shared<Ipc::GetUploads>(p); },
       "\"Get Uploads\"", 2},
  };
  return kinds;
}

// Notes which visit each call reached, and for which object.
class RecordingProcessor : public Ipc::CmdProcessorLiteI {
 public:
  void visit(Ipc::IsRunning& c) override { note("IsRunning", c); }
  void visit(Ipc::GetCfg& c) override { note("GetCfg", c); }
  void visit(Ipc::SaveCfg& c) override { note("SaveCfg", c); }
  void visit(Ipc::Pause& c) override { note("Pause", c); }
  void visit(Ipc::Resume& c) override { note("Resume", c); }
  void visit(Ipc::ServerRequest& c) override { note("ServerRequest", c); }
  void visit(Ipc::GetUploads& c) override { note("GetUploads", c); }

  std::vector<std::pair<std::string, CmdI const*>> calls;

 private:
  void note(char const* which, CmdI const& c) { calls.emplace_back(which, &c); }
};

}  // namespace

// ---------------------------------------------------------------------------
// Names, time-out identifiers, type codes, the factory

TEST(IpcCmdFrame, NamesAreExactIncludingTheirQuoteCharacters) {
  for (CmdKind const& k : allKinds()) {
    auto const cmd = k.make(anyProcessor());
    EXPECT_STREQ(k.name, cmd->name()) << k.label;
    auto const received = Ipc::createLiteCmd(cmd->typeCode(), anyProcessor(), "/tmp");
    ASSERT_NE(nullptr, received) << k.label;
    EXPECT_STREQ(k.name, received->name()) << k.label;
  }
}

TEST(IpcCmdFrame, IsRunningNameIsTwelveCharactersWithItsQuotes) {
  Ipc::IsRunning const cmd(anyProcessor());
  EXPECT_EQ(12u, std::strlen(cmd.name()));
  EXPECT_EQ('"', cmd.name()[0]);
  EXPECT_EQ('"', cmd.name()[11]);
}

TEST(IpcCmdFrame, ReqTimeoutIdIsTheLongOneOnlyForTheServerCall) {
  for (CmdKind const& k : allKinds()) {
    EXPECT_EQ(k.timeoutId, k.make(anyProcessor())->reqTimeoutId()) << k.label;
  }
  EXPECT_EQ(CmdI::TIMEOUT_LONG, Ipc::ServerRequest(anyProcessor()).reqTimeoutId());
}

TEST(IpcCmdFrame, TypeCodesAreDistinctAndKeepTheFixedAndReservedValues) {
  std::set<int> codes;
  for (CmdKind const& k : allKinds()) {
    int const code = k.make(anyProcessor())->typeCode();
    EXPECT_TRUE(codes.insert(code).second) << k.label << " shares code " << code;
    if (std::string(k.label) == "SaveCfg") {
      EXPECT_EQ(5, code);
    } else if (std::string(k.label) == "ServerRequest") {
      EXPECT_EQ(8, code);
    } else {
      // 5 and 8 are taken; 9 (configuration test) and 10 (file drop) are
      // reserved.
      EXPECT_TRUE(code != 5 && code != 8 && code != 9 && code != 10) << k.label << ": " << code;
    }
  }
  EXPECT_EQ(7u, codes.size());
}

TEST(IpcCmdFrame, FactoryBuildsTheClassOfEachKnownCode) {
  auto const processor = anyProcessor();
  for (CmdKind const& k : allKinds()) {
    auto const sent = k.make(anyProcessor());
    auto const received = Ipc::createLiteCmd(sent->typeCode(), processor, "/var/spool/in");
    ASSERT_NE(nullptr, received) << k.label;
    // Exact class: a Pause is also a Resume, so a dynamic_cast would not do.
    Ipc::CmdI const& sentCmd = *sent;
    Ipc::CmdI const& receivedCmd = *received;
    EXPECT_EQ(std::string(typeid(sentCmd).name()), typeid(receivedCmd).name()) << k.label;
    EXPECT_EQ(sent->typeCode(), received->typeCode()) << k.label;
    EXPECT_EQ(processor, received->processor()) << k.label;
    EXPECT_EQ(nullptr, received->channel()) << k.label;
  }
}

TEST(IpcCmdFrame, ClassTreeAddsNoDataToTheJsonFrameAndPauseIsAResume) {
  EXPECT_EQ(sizeof(Ipc::JsonCmdBase), sizeof(CmdLiteBase));
  EXPECT_TRUE((std::is_base_of<Ipc::JsonCmdBase, CmdLiteBase>::value));
  EXPECT_TRUE((std::is_base_of<Ipc::Resume, Ipc::Pause>::value));
  EXPECT_TRUE((std::is_base_of<Ipc::CmdProcessorI, Ipc::CmdProcessorLiteI>::value));
  for (CmdKind const& k : allKinds()) {
    EXPECT_NE(nullptr, dynamic_cast<CmdLiteBase*>(k.make(anyProcessor()).get())) << k.label;
  }
}

// Each payload command, given a document that the test also holds, drops
// its reference when it is destroyed.
TEST(IpcCmdFrame, DestroyingACommandReleasesItsPayload) {
  // Each returns the document's count while the command holds it.
  struct Case {
    char const* label;
    std::function<std::size_t(json::Object const&)> holdAndDrop;
  };
  Case const cases[] = {
      {"GetCfg",
       [](json::Object const& doc) {
         Ipc::GetCfg cmd(anyProcessor());
         cmd.deserializeResp(doc);
         return doc.get()->refcount;
       }},
      {"SaveCfg",
       [](json::Object const& doc) {
         Ipc::SaveCfg cmd(anyProcessor());
         cmd.deserializeReq(doc);
         return doc.get()->refcount;
       }},
      {"ServerRequest",
       [](json::Object const& doc) {
         Ipc::ServerRequest cmd(anyProcessor());
         cmd.deserializeReq(doc);
         return doc.get()->refcount;
       }},
      {"GetUploads",
       [](json::Object const& doc) {
         Ipc::GetUploads cmd(anyProcessor());
         cmd.deserializeResp(doc);
         return doc.get()->refcount;
       }},
  };
  for (Case const& c : cases) {
    json::Object const doc = parse(R"({"k":1})");
    ASSERT_EQ(1u, doc.get()->refcount) << c.label;
    EXPECT_EQ(2u, c.holdAndDrop(doc)) << c.label;
    EXPECT_EQ(1u, doc.get()->refcount) << c.label;
  }
  // The server call's parameters are held by its payload while it lives.
  json::Object const params = parse(R"({"k":1})");
  {
    Ipc::ServerRequest const cmd(anyProcessor(), "m", params, nullptr);
    EXPECT_EQ(2u, params.get()->refcount);
  }
  EXPECT_EQ(1u, params.get()->refcount);
}

TEST(IpcCmdFrame, FactoryReturnsNullForUnknownCodes) {
  std::set<int> known{9, 10};  // reserved for the configuration test and the file drop
  for (CmdKind const& k : allKinds()) known.insert(k.make(anyProcessor())->typeCode());
  for (int code = 0; code < 256; ++code) {
    if (known.count(code)) continue;
    EXPECT_EQ(nullptr, Ipc::createLiteCmd(static_cast<CmdI::TypeCode>(code), anyProcessor(), "/tmp"))
        << "code " << code;
  }
}

// ---------------------------------------------------------------------------
// Dispatch

TEST(IpcCmdDispatch, EachCommandReachesTheVisitOfItsOwnClass) {
  for (CmdKind const& k : allKinds()) {
    auto const cmd = k.make(anyProcessor());
    RecordingProcessor viaBase;
    dispatch(*cmd, viaBase);
    ASSERT_EQ(1u, viaBase.calls.size()) << k.label;
    EXPECT_EQ(k.label, viaBase.calls[0].first) << k.label;
    EXPECT_EQ(cmd.get(), viaBase.calls[0].second) << k.label;

    RecordingProcessor direct;
    cmd->accept(static_cast<Ipc::CmdProcessorLiteI&>(direct));
    ASSERT_EQ(1u, direct.calls.size()) << k.label;
    EXPECT_EQ(k.label, direct.calls[0].first) << k.label;
    EXPECT_EQ(cmd.get(), direct.calls[0].second) << k.label;
  }
}

TEST(IpcCmdDispatch, PauseNeverReachesTheResumeVisit) {
  struct OnlyResume : Ipc::CmdProcessorLiteI {
    void visit(Ipc::Resume& c) override {
      c.ok = true;
      c.msg = "resumed";
      ++resumes;
    }
    int resumes = 0;
  };
  auto const processor = std::make_shared<OnlyResume>();
  auto const pause = std::make_shared<Ipc::Pause>(processor, false);
  dispatch(*pause, *processor);
  EXPECT_EQ(0, processor->resumes);
  EXPECT_FALSE(pause->ok);
  EXPECT_EQ("", pause->msg);
  EXPECT_EQ("{}", text(pause->serializeResp()));

  auto const resume = std::make_shared<Ipc::Resume>(processor);
  dispatch(*resume, *processor);
  EXPECT_EQ(1, processor->resumes);
}

// The service builds each command from its code and reads the request, then
// dispatches it to a processor that serves only IsRunning: every other
// response is what the constructor and the request left.
TEST(IpcCmdDispatch, ProcessorServingOnlyIsRunningLeavesOtherResponsesAsTheyWere) {
  struct OnlyIsRunning : Ipc::CmdProcessorLiteI {
    void visit(Ipc::IsRunning& c) override { c.running = true; }
  };
  auto const processor = std::make_shared<OnlyIsRunning>();
  struct Case {
    char const* label;
    std::shared_ptr<CmdLiteBase> sent;  // built by the user interface
    char const* response;               // expected; null: the request's own text
  };
  Case const cases[] = {
      {"IsRunning", std::make_shared<Ipc::IsRunning>(processor), R"({"resp":true})"},
      {"GetCfg", std::make_shared<Ipc::GetCfg>(processor), "{}"},
      {"SaveCfg", std::make_shared<Ipc::SaveCfg>(processor, clientSettings()), "{}"},
      {"Pause", std::make_shared<Ipc::Pause>(processor, true), "{}"},
      {"Resume", std::make_shared<Ipc::Resume>(processor), "{}"},
      {"ServerRequest",
       std::make_shared<Ipc::ServerRequest>(processor, "getQuota", parse(R"({"a":1})"), nullptr),
       nullptr},
      {"GetUploads", std::make_shared<Ipc::GetUploads>(processor), "{}"},
  };
  for (Case const& c : cases) {
    auto const [request, sendEvents] = requestBytes(c.sent);
    ASSERT_GE(request.size(), Ipc::wire::kFrameSize) << c.label;
    auto const received = Ipc::createLiteCmd(static_cast<CmdI::TypeCode>(request[3]), processor, "/tmp");
    ASSERT_NE(nullptr, received) << c.label;
    bool const hasBody = (request[4] & Ipc::wire::kFlagJsonBody) != 0;
    EXPECT_EQ(Events{"reqDone"},
              readRequest(received, hasBody, request.substr(Ipc::wire::kFrameSize)))
        << c.label;
    dispatch(*received, *processor);
    std::string const expected =
        c.response ? std::string(c.response) : text(c.sent->serializeReq());
    EXPECT_EQ(expected, text(received->serializeResp())) << c.label;
  }
}

TEST(IpcCmdDispatch, UnservedCommandKeepsResponseFieldsSetBeforeTheVisit) {
  auto const processor = std::make_shared<Ipc::CmdProcessorLiteI>();
  auto const resume = std::make_shared<Ipc::Resume>(processor);
  resume->ok = true;
  resume->msg = "kept";
  dispatch(*resume, *processor);
  EXPECT_EQ(R"({"ok":true,"msg":"kept"})", text(resume->serializeResp()));

  auto const uploads = std::make_shared<Ipc::GetUploads>(processor);
  uploads->payload = parse(R"({"uploads":[]})");
  json_t* const before = uploads->payload.get();
  dispatch(*uploads, *processor);
  EXPECT_EQ(before, uploads->serializeResp().get());
}

// ---------------------------------------------------------------------------
// Requests on the wire (through a channel that records the bytes)

TEST(IpcCmdRequestBytes, BareCommandsWriteOnlyTheEightByteFrame) {
  for (char const* label : {"IsRunning", "GetCfg", "Resume", "GetUploads"}) {
    for (CmdKind const& k : allKinds()) {
      if (std::string(k.label) != label) continue;
      auto const cmd = k.make(anyProcessor());
      auto const [bytes, events] = requestBytes(cmd);
      EXPECT_EQ(hex(frame(cmd->typeCode(), 0)), hex(bytes)) << label;
      EXPECT_EQ(8u, bytes.size()) << label;
      EXPECT_EQ(Events{"reqDone"}, events) << label;
    }
  }
}

TEST(IpcCmdRequestBytes, PauseWithoutDelAllWritesAnEmptyObjectBodyWhileResumeWritesNone) {
  auto const pause = std::make_shared<Ipc::Pause>(anyProcessor(), false);
  auto const [pauseBytes, pauseEvents] = requestBytes(pause);
  EXPECT_EQ(hex(frame(pause->typeCode(), Ipc::wire::kFlagJsonBody) + std::string("\x02\0\0\0{}", 6)),
            hex(pauseBytes));
  EXPECT_EQ(Events{"reqDone"}, pauseEvents);

  auto const resume = std::make_shared<Ipc::Resume>(anyProcessor());
  auto const [resumeBytes, resumeEvents] = requestBytes(resume);
  EXPECT_EQ(hex(frame(resume->typeCode(), 0)), hex(resumeBytes));
  EXPECT_EQ(Events{"reqDone"}, resumeEvents);
}

TEST(IpcCmdRequestBytes, PauseWithDelAllWritesTheFlag) {
  auto const pause = std::make_shared<Ipc::Pause>(anyProcessor(), true);
  auto const [bytes, events] = requestBytes(pause);
  EXPECT_EQ(hex(frame(pause->typeCode(), Ipc::wire::kFlagJsonBody) + body(R"({"delAll":true})")),
            hex(bytes));
  EXPECT_EQ(Events{"reqDone"}, events);
}

TEST(IpcCmdRequestBytes, PauseDelAllSetAfterConstructionIsSent) {
  auto const pause = std::make_shared<Ipc::Pause>(anyProcessor());
  EXPECT_FALSE(pause->delAll);
  pause->delAll = true;
  EXPECT_EQ(hex(frame(pause->typeCode(), Ipc::wire::kFlagJsonBody) + body(R"({"delAll":true})")),
            hex(requestBytes(pause).first));
}

TEST(IpcCmdRequestBytes, SaveCfgAndServerRequestWriteTheirPayloadAsBody) {
  Settings const record = clientSettings();
  auto const save = std::make_shared<Ipc::SaveCfg>(anyProcessor(), record);
  EXPECT_EQ(hex(frame(5, Ipc::wire::kFlagJsonBody) + body(text(record.serialize()))),
            hex(requestBytes(save).first));

  auto const call =
      std::make_shared<Ipc::ServerRequest>(anyProcessor(), "getQuota", parse(R"({"a":1})"), nullptr);
  EXPECT_EQ(hex(frame(8, Ipc::wire::kFlagJsonBody) +
                body(R"({"method":"getQuota","params":{"a":1}})")),
            hex(requestBytes(call).first));
}

TEST(IpcCmdRequestBytes, BareCommandsReadARequestWithoutBody) {
  for (char const* label : {"IsRunning", "GetCfg", "Resume", "GetUploads"}) {
    for (CmdKind const& k : allKinds()) {
      if (std::string(k.label) != label) continue;
      auto const received = Ipc::createLiteCmd(k.make(anyProcessor())->typeCode(), anyProcessor(), "/tmp");
      EXPECT_EQ(Events{"reqDone"}, readRequest(received, false, "")) << label;
    }
  }
}

TEST(IpcCmdRequestBytes, BareCommandRefusesARequestThatAnnouncesABody) {
  auto const received = std::make_shared<Ipc::IsRunning>(anyProcessor());
  FakeChannel ch(FakeChannel::Completion::AtOnce);
  received->setChannel(&ch, true);
  received->readReq();
  EXPECT_EQ(Events{"failCmd: Ipc \"Is Running\" request carries a body it does not take"}, ch.events);
}

TEST(IpcCmdRequestBytes, PauseReadsDelAllFromItsBody) {
  struct Case {
    char const* body;
    bool delAll;
  };
  Case const cases[] = {
      {R"({"delAll":true})", true}, {"{}", false},           {R"({"delAll":false})", false},
      {R"({"delAll":"true"})", false}, {R"({"delAll":1})", false}, {R"({"delAll":null})", false},
  };
  for (Case const& c : cases) {
    auto const received = std::make_shared<Ipc::Pause>(anyProcessor(), !c.delAll);
    EXPECT_EQ(Events{"reqDone"}, readRequest(received, true, body(c.body))) << c.body;
    EXPECT_EQ(c.delAll, received->delAll) << c.body;
  }
}

TEST(IpcCmdRequestBytes, PauseRefusesARequestWithoutBody) {
  auto const received = std::make_shared<Ipc::Pause>(anyProcessor());
  FakeChannel ch(FakeChannel::Completion::AtOnce);
  received->setChannel(&ch, false);
  received->readReq();
  EXPECT_EQ(Events{"failCmd: Ipc Pause request has no JSON body"}, ch.events);
}

// ---------------------------------------------------------------------------
// A whole exchange through channels: the user interface's request bytes are
// read by a command that the factory built, the processor answers, and the
// response bytes are read back.

TEST(IpcCmdExchange, EveryCommandCarriesItsFieldsThereAndBack) {
  struct Answering : Ipc::CmdProcessorLiteI {
    void visit(Ipc::IsRunning& c) override { c.running = true; }
    void visit(Ipc::GetCfg& c) override { c.setSetts(clientSettings()); }
    void visit(Ipc::SaveCfg& c) override {
      c.ok = true;
      c.msg = "saved " + c.pSetts()->AccountId;
    }
    void visit(Ipc::Pause& c) override { c.msg = c.delAll ? "all" : "some"; }
    void visit(Ipc::Resume& c) override { c.ok = true; }
    void visit(Ipc::ServerRequest& c) override {
      json::Object answer;
      answer.setAt("echo", json::Value(c.callName()));
      answer.setAt("params", c.jParams());
      c.payload = answer;
    }
    void visit(Ipc::GetUploads& c) override { c.payload = parse(R"({"uploads":[1,2]})"); }
  };
  auto const processor = std::make_shared<Answering>();

  auto exchange = [&](std::shared_ptr<CmdLiteBase> const& sent, char const* label) {
    auto const [request, sendEvents] = requestBytes(sent);
    EXPECT_EQ(Events{"reqDone"}, sendEvents) << label;
    auto const received =
        Ipc::createLiteCmd(static_cast<CmdI::TypeCode>(request[3]), processor, "/tmp");
    EXPECT_EQ(Events{"reqDone"}, readRequest(received, (request[4] & 1) != 0,
                                             request.substr(Ipc::wire::kFrameSize)))
        << label;
    dispatch(*received, *processor);
    auto const [response, respEvents] = responseBytes(received);
    EXPECT_EQ(Events{"finishCmd"}, respEvents) << label;
    EXPECT_EQ(Events{"finishCmd"}, readResponse(sent, response)) << label;
    return response;
  };

  auto const isRunning = std::make_shared<Ipc::IsRunning>(processor);
  EXPECT_EQ(hex(body(R"({"resp":true})")), hex(exchange(isRunning, "IsRunning")));
  EXPECT_TRUE(isRunning->running);

  auto const getCfg = std::make_shared<Ipc::GetCfg>(processor);
  EXPECT_EQ(hex(body(text(clientSettings().serialize()))), hex(exchange(getCfg, "GetCfg")));
  EXPECT_TRUE(*getCfg->pSetts() == clientSettings());

  auto const saveCfg = std::make_shared<Ipc::SaveCfg>(processor, clientSettings());
  EXPECT_EQ(hex(body(R"({"ok":true,"msg":"saved acct-ui"})")), hex(exchange(saveCfg, "SaveCfg")));
  EXPECT_TRUE(saveCfg->ok);
  EXPECT_EQ("saved acct-ui", saveCfg->msg);

  auto const pause = std::make_shared<Ipc::Pause>(processor, true);
  EXPECT_EQ(hex(body(R"({"msg":"all"})")), hex(exchange(pause, "Pause")));
  EXPECT_FALSE(pause->ok);
  EXPECT_EQ("all", pause->msg);

  auto const resume = std::make_shared<Ipc::Resume>(processor);
  EXPECT_EQ(hex(body(R"({"ok":true})")), hex(exchange(resume, "Resume")));
  EXPECT_TRUE(resume->ok);
  EXPECT_EQ("", resume->msg);

  auto const call =
      std::make_shared<Ipc::ServerRequest>(processor, "getQuota", parse(R"({"a":1})"), nullptr);
  EXPECT_EQ(hex(body(R"({"echo":"getQuota","params":{"a":1}})")),
            hex(exchange(call, "ServerRequest")));
  EXPECT_EQ(R"({"echo":"getQuota","params":{"a":1}})", text(call->payload));

  auto const uploads = std::make_shared<Ipc::GetUploads>(processor);
  EXPECT_EQ(hex(body(R"({"uploads":[1,2]})")), hex(exchange(uploads, "GetUploads")));
  EXPECT_EQ(R"({"uploads":[1,2]})", text(uploads->payload));
}

// ---------------------------------------------------------------------------
// IsRunning

TEST(IpcIsRunning, FieldRespIsTheKeyResp) { EXPECT_STREQ("resp", Ipc::JsonCmdBase::FIELD_RESP); }

TEST(IpcIsRunning, RunningServiceAnswersRespTrue) {
  Ipc::IsRunning cmd(anyProcessor());
  cmd.running = true;
  EXPECT_EQ(R"({"resp":true})", text(cmd.serializeResp()));
}

TEST(IpcIsRunning, ServiceThatAnsweredFalseSendsEmptyObjectAndClientReadsFalse) {
  Ipc::IsRunning service(anyProcessor());
  EXPECT_FALSE(service.running);
  std::string const sent = text(service.serializeResp());
  EXPECT_EQ("{}", sent);

  Ipc::IsRunning client(anyProcessor());
  client.running = true;
  client.deserializeResp(parse(sent));
  EXPECT_FALSE(client.running);
}

TEST(IpcIsRunning, ReaderTakesOnlyTheJsonTrueAndNeverThrows) {
  struct Case {
    char const* json;
    bool running;
  };
  Case const cases[] = {
      {R"({"resp":true})", true},    {R"({"resp":"true"})", false}, {R"({"resp":1})", false},
      {R"({"resp":false})", false},  {R"({"resp":null})", false},   {R"({"resp":{}})", false},
      {R"({"resp":[true]})", false}, {"{}", false},                  {R"({"ok":true})", false},
  };
  for (Case const& c : cases) {
    Ipc::IsRunning cmd(anyProcessor());
    cmd.running = !c.running;
    EXPECT_NO_THROW(cmd.deserializeResp(parse(c.json))) << c.json;
    EXPECT_EQ(c.running, cmd.running) << c.json;
  }
}

TEST(IpcIsRunning, RequestBodyWouldBeEmpty) {
  // The request travels without a body; the inherited writer gives {}.
  Ipc::IsRunning cmd(anyProcessor());
  EXPECT_EQ("{}", text(cmd.serializeReq()));
}

// ---------------------------------------------------------------------------
// The "ok"/"msg" responses of SaveCfg, Resume and Pause

namespace {

struct OkMsgKind {
  char const* label;
  std::function<std::shared_ptr<CmdLiteBase>()> make;
  std::function<bool&(CmdLiteBase&)> ok;
  std::function<std::string&(CmdLiteBase&)> msg;
};

std::vector<OkMsgKind> const& okMsgKinds() {
  static std::vector<OkMsgKind> const kinds = {
      {"SaveCfg", [] { return std::make_shared<Ipc::SaveCfg>(anyProcessor(), clientSettings()); },
       [](CmdLiteBase& c) -> bool& { return static_cast<Ipc::SaveCfg&>(c).ok; },
       [](CmdLiteBase& c) -> std::string& { return static_cast<Ipc::SaveCfg&>(c).msg; }},
      {"Resume", [] { return std::make_shared<Ipc::Resume>(anyProcessor()); },
       [](CmdLiteBase& c) -> bool& { return static_cast<Ipc::Resume&>(c).ok; },
       [](CmdLiteBase& c) -> std::string& { return static_cast<Ipc::Resume&>(c).msg; }},
      {"Pause", [] { return std::make_shared<Ipc::Pause>(anyProcessor(), true); },
       [](CmdLiteBase& c) -> bool& { return static_cast<Ipc::Pause&>(c).ok; },
       [](CmdLiteBase& c) -> std::string& { return static_cast<Ipc::Pause&>(c).msg; }},
  };
  return kinds;
}

}  // namespace

TEST(IpcOkMsgResponse, ConstructedCommandsStartWithOkFalseAndNoMessage) {
  for (OkMsgKind const& k : okMsgKinds()) {
    auto const cmd = k.make();
    EXPECT_FALSE(k.ok(*cmd)) << k.label;
    EXPECT_EQ("", k.msg(*cmd)) << k.label;
    EXPECT_EQ("{}", text(cmd->serializeResp())) << k.label;
  }
}

TEST(IpcOkMsgResponse, WriterPutsOkFirstAndLeavesOutWhatReadsAsDefault) {
  struct Case {
    bool ok;
    char const* msg;
    char const* json;
  };
  Case const cases[] = {
      {true, "", R"({"ok":true})"},
      {false, "", "{}"},
      {true, "saved", R"({"ok":true,"msg":"saved"})"},
      {false, "disk full", R"({"msg":"disk full"})"},
      {true, "say \"hi\"", R"({"ok":true,"msg":"say \"hi\""})"},
  };
  for (OkMsgKind const& k : okMsgKinds()) {
    for (Case const& c : cases) {
      auto const cmd = k.make();
      k.ok(*cmd) = c.ok;
      k.msg(*cmd) = c.msg;
      EXPECT_EQ(c.json, text(cmd->serializeResp())) << k.label << " ok=" << c.ok << " msg=" << c.msg;
    }
  }
}

TEST(IpcOkMsgResponse, ReaderTakesOnlyTrueAndStringsAndNeverThrows) {
  struct Case {
    char const* json;
    bool ok;
    char const* msg;
  };
  Case const cases[] = {
      {"{}", false, ""},
      {R"({"ok":true})", true, ""},
      {R"({"ok":true,"msg":"m"})", true, "m"},
      {R"({"msg":"m","ok":true})", true, "m"},
      {R"({"ok":"true"})", false, ""},
      {R"({"ok":1})", false, ""},
      {R"({"ok":false})", false, ""},
      {R"({"ok":null})", false, ""},
      {R"({"ok":{}})", false, ""},
      {R"({"msg":42})", false, ""},
      {R"({"ok":true,"msg":42})", true, ""},
      {R"({"msg":true})", false, ""},
      {R"({"msg":null})", false, ""},
      {R"({"msg":["m"]})", false, ""},
      {R"({"msg":{"text":"m"}})", false, ""},
      {R"({"msg":""})", false, ""},
      {R"({"msg":"service stopped"})", false, "service stopped"},
  };
  for (OkMsgKind const& k : okMsgKinds()) {
    for (Case const& c : cases) {
      auto const cmd = k.make();
      k.ok(*cmd) = !c.ok;
      k.msg(*cmd) = "stale";
      EXPECT_NO_THROW(cmd->deserializeResp(parse(c.json))) << k.label << " " << c.json;
      EXPECT_EQ(c.ok, k.ok(*cmd)) << k.label << " " << c.json;
      EXPECT_EQ(c.msg, k.msg(*cmd)) << k.label << " " << c.json;
    }
  }
}

TEST(IpcOkMsgResponse, MsgThatIsANumberReadsAsEmpty) {
  Ipc::Resume cmd(anyProcessor());
  cmd.msg = "before";
  cmd.deserializeResp(parse(R"({"msg":404})"));
  EXPECT_EQ("", cmd.msg);
  EXPECT_FALSE(cmd.ok);
}

TEST(IpcOkMsgResponse, SaveCfgOkWithEmptyMsgSendsOnlyOk) {
  Ipc::SaveCfg cmd(anyProcessor(), clientSettings());
  cmd.ok = true;
  EXPECT_EQ(R"({"ok":true})", text(cmd.serializeResp()));
  cmd.ok = false;
  EXPECT_EQ("{}", text(cmd.serializeResp()));
}

// ---------------------------------------------------------------------------
// Pause request

TEST(IpcPause, RequestBodyIsEmptyObjectWithoutDelAllAndTheFlagWithIt) {
  Ipc::Pause without(anyProcessor(), false);
  EXPECT_EQ("{}", text(without.serializeReq()));
  Ipc::Pause with(anyProcessor(), true);
  EXPECT_EQ(R"({"delAll":true})", text(with.serializeReq()));
}

TEST(IpcPause, RequestReaderTakesOnlyTheJsonTrueAndNeverThrows) {
  struct Case {
    char const* json;
    bool delAll;
  };
  Case const cases[] = {
      {R"({"delAll":true})", true},  {R"({"delAll":"true"})", false}, {R"({"delAll":1})", false},
      {R"({"delAll":false})", false}, {R"({"delAll":[]})", false},     {"{}", false},
  };
  for (Case const& c : cases) {
    Ipc::Pause cmd(anyProcessor(), !c.delAll);
    EXPECT_NO_THROW(cmd.deserializeReq(parse(c.json))) << c.json;
    EXPECT_EQ(c.delAll, cmd.delAll) << c.json;
  }
}

// ---------------------------------------------------------------------------
// GetCfg and SaveCfg: the configuration payload

TEST(IpcGetCfg, ConstructedPayloadIsAnEmptyObject) {
  Ipc::GetCfg cmd(anyProcessor());
  EXPECT_EQ("{}", text(cmd.payload));
  EXPECT_EQ("{}", text(cmd.serializeResp()));
}

TEST(IpcGetCfg, ResponseIsThePayloadItselfNotACopy) {
  Ipc::GetCfg cmd(anyProcessor());
  cmd.setSetts(clientSettings());
  json::Object const resp = cmd.serializeResp();
  EXPECT_EQ(cmd.payload.get(), resp.get());
  EXPECT_EQ(text(clientSettings().serialize()), text(resp));
}

TEST(IpcGetCfg, ReadResponseSharesTheReceivedObject) {
  Ipc::GetCfg cmd(anyProcessor());
  json::Object const received = parse(kClientCfgText);
  cmd.deserializeResp(received);
  EXPECT_EQ(received.get(), cmd.payload.get());
}

TEST(IpcGetCfg, SetSettsReplacesThePayloadAndReleasesTheOldOne) {
  Ipc::GetCfg cmd(anyProcessor());
  json::Object const old = cmd.payload;
  ASSERT_EQ(2u, old.get()->refcount);
  Settings const record = clientSettings();
  cmd.setSetts(record);
  EXPECT_EQ(1u, old.get()->refcount);
  EXPECT_NE(old.get(), cmd.payload.get());
  EXPECT_EQ(text(record.serialize()), text(cmd.payload));
}

TEST(IpcGetCfg, PSettsTwiceGivesTwoDistinctEqualRecordsAndLeavesThePayload) {
  Ipc::GetCfg cmd(anyProcessor());
  cmd.deserializeResp(parse(kClientCfgText));
  json_t* const payloadBefore = cmd.payload.get();
  std::string const textBefore = text(cmd.payload);

  std::unique_ptr<Settings> const a = cmd.pSetts();
  std::unique_ptr<Settings> const b = cmd.pSetts();
  ASSERT_NE(nullptr, a);
  ASSERT_NE(nullptr, b);
  EXPECT_NE(a.get(), b.get());
  EXPECT_TRUE(*a == *b);
  EXPECT_TRUE(*a == clientSettings());
  EXPECT_EQ("acct-ui", a->AccountId);
  EXPECT_EQ(payloadBefore, cmd.payload.get());
  EXPECT_EQ(textBefore, text(cmd.payload));
}

TEST(IpcSaveCfg, PayloadIsTheJsonFormOfTheRecord) {
  Settings const record = clientSettings();
  Ipc::SaveCfg cmd(anyProcessor(), record);
  EXPECT_EQ(text(record.serialize()), text(cmd.payload));
  EXPECT_EQ(5, cmd.typeCode());
  EXPECT_FALSE(cmd.ok);
  EXPECT_EQ("", cmd.msg);
}

TEST(IpcSaveCfg, RequestIsThePayloadItselfNotACopy) {
  Ipc::SaveCfg cmd(anyProcessor(), clientSettings());
  EXPECT_EQ(cmd.payload.get(), cmd.serializeReq().get());
}

TEST(IpcSaveCfg, ReadRequestSharesTheReceivedObject) {
  Ipc::SaveCfg cmd(anyProcessor());
  EXPECT_EQ("{}", text(cmd.payload));
  json::Object const received = parse(kClientCfgText);
  cmd.deserializeReq(received);
  EXPECT_EQ(received.get(), cmd.payload.get());
}

TEST(IpcSaveCfg, PSettsTwiceGivesTwoDistinctEqualRecordsAndLeavesThePayload) {
  Settings const record = clientSettings();
  Ipc::SaveCfg cmd(anyProcessor(), record);
  json_t* const payloadBefore = cmd.payload.get();
  std::string const textBefore = text(cmd.payload);

  std::unique_ptr<Settings> const a = cmd.pSetts();
  std::unique_ptr<Settings> const b = cmd.pSetts();
  ASSERT_NE(nullptr, a);
  ASSERT_NE(nullptr, b);
  EXPECT_NE(a.get(), b.get());
  EXPECT_TRUE(*a == *b);
  EXPECT_TRUE(*a == record);
  EXPECT_EQ(payloadBefore, cmd.payload.get());
  EXPECT_EQ(textBefore, text(cmd.payload));
}

// ---------------------------------------------------------------------------
// ServerRequest

TEST(IpcServerRequest, WithoutInetCfgHasMethodAndParamsOnly) {
  Ipc::ServerRequest cmd(anyProcessor(), "getQuota", parse(R"({"account":"a1"})"), nullptr);
  EXPECT_EQ(R"({"method":"getQuota","params":{"account":"a1"}})", text(cmd.serializeReq()));
  EXPECT_EQ(nullptr, cmd.pInetCfg());
  EXPECT_TRUE(cmd.payload["inetCfg"].empty());
  EXPECT_EQ(8, cmd.typeCode());
}

TEST(IpcServerRequest, WithInetCfgAddsItsJsonFormLast) {
  Inet::InetCfg const inet("srv.example.com", "alt.example.com", true, "proxy.example.com:3128",
                           false, false, false, Inet::InetCfg::ProxyAuthMethod::Basic, "pu", "pp",
                           "9.9.9");
  Ipc::ServerRequest cmd(anyProcessor(), "register", parse(R"({"n":1})"), &inet);
  EXPECT_EQ(
      R"({"method":"register","params":{"n":1},"inetCfg":{"InetServer":"srv.example.com",)"
      R"("InetAltServer":"alt.example.com","InetUseProxy":true,"InetProxy":"proxy.example.com:3128",)"
      R"("InetProxyAuth":"basic","InetProxyUser":"pu","InetProxyPassword":"pp"}})",
      text(cmd.serializeReq()));

  std::unique_ptr<Inet::InetCfg> const read = cmd.pInetCfg();
  ASSERT_NE(nullptr, read);
  EXPECT_TRUE(*read == inet);
  EXPECT_EQ(LITE_VERSION_STR, read->version());
  EXPECT_EQ("7.0.1", read->version());
}

TEST(IpcServerRequest, DefaultInetCfgGivesAnEmptyObject) {
  Inet::InetCfg const inet("x");
  Ipc::ServerRequest cmd(anyProcessor(), "m", json::Object(), &inet);
  EXPECT_EQ(R"({"method":"m","params":{},"inetCfg":{}})", text(cmd.payload));
  std::unique_ptr<Inet::InetCfg> const read = cmd.pInetCfg();
  ASSERT_NE(nullptr, read);
  EXPECT_TRUE(*read == Inet::InetCfg("y"));
}

TEST(IpcServerRequest, ParamsAreSharedNotCopied) {
  json::Object const params = parse(R"({"account":"a1"})");
  Ipc::ServerRequest cmd(anyProcessor(), "getQuota", params, nullptr);
  EXPECT_EQ(params.get(), cmd.payload["params"].get());
  EXPECT_EQ(params.get(), cmd.jParams().get());

  // A change of the shared document after construction shows in the request.
  ASSERT_EQ(0, json_object_set_new(params.get(), "late", json_integer(5)));
  EXPECT_EQ(R"({"method":"getQuota","params":{"account":"a1","late":5}})",
            text(cmd.serializeReq()));
}

TEST(IpcServerRequest, SerializersReturnThePayloadItself) {
  Ipc::ServerRequest cmd(anyProcessor(), "m", json::Object(), nullptr);
  EXPECT_EQ(cmd.payload.get(), cmd.serializeReq().get());
  EXPECT_EQ(cmd.payload.get(), cmd.serializeResp().get());
}

TEST(IpcServerRequest, ReadersShareTheReceivedObject) {
  Ipc::ServerRequest cmd(anyProcessor());
  EXPECT_EQ("{}", text(cmd.payload));
  json::Object const request = parse(R"({"method":"m","params":{"k":"v"}})");
  cmd.deserializeReq(request);
  EXPECT_EQ(request.get(), cmd.payload.get());
  EXPECT_EQ("m", cmd.callName());
  EXPECT_EQ(R"({"k":"v"})", text(cmd.jParams()));

  json::Object const response = parse(R"({"quota":100})");
  cmd.deserializeResp(response);
  EXPECT_EQ(response.get(), cmd.payload.get());
}

TEST(IpcServerRequest, ResponseReplacesTheRequestSoCallNameNoLongerReadsIt) {
  Ipc::ServerRequest cmd(anyProcessor(), "getQuota", json::Object(), nullptr);
  EXPECT_EQ("getQuota", cmd.callName());
  cmd.deserializeResp(parse(R"({"quota":100})"));
  EXPECT_EQ(R"({"quota":100})", text(cmd.payload));
  EXPECT_EQ("JSON error: Wrong type: empty. Expected type: string",
            jsonExcMessage([&] { cmd.callName(); }));
}

TEST(IpcServerRequest, AccessorsThrowJsonExcWithTheTypeFoundAndExpected) {
  enum class Accessor { CallName, JParams, PInetCfg };
  struct Case {
    char const* payload;
    Accessor accessor;
    char const* message;
  };
  Case const cases[] = {
      {R"({"params":{}})", Accessor::CallName, "JSON error: Wrong type: empty. Expected type: string"},
      {R"({"method":5,"params":{}})", Accessor::CallName,
       "JSON error: Wrong type: integer. Expected type: string"},
      {R"({"method":null})", Accessor::CallName, "JSON error: Wrong type: null. Expected type: string"},
      {R"({"method":{}})", Accessor::CallName, "JSON error: Wrong type: object. Expected type: string"},
      {R"({"method":"m"})", Accessor::JParams, "JSON error: Wrong type: empty. Expected type: object"},
      {R"({"method":"m","params":[1]})", Accessor::JParams,
       "JSON error: Wrong type: array. Expected type: object"},
      {R"({"method":"m","params":"p"})", Accessor::JParams,
       "JSON error: Wrong type: string. Expected type: object"},
      {R"({"method":"m","params":true})", Accessor::JParams,
       "JSON error: Wrong type: boolean. Expected type: object"},
      {R"({"inetCfg":[]})", Accessor::PInetCfg, "JSON error: Wrong type: array. Expected type: object"},
      {R"({"inetCfg":"srv"})", Accessor::PInetCfg,
       "JSON error: Wrong type: string. Expected type: object"},
      {R"({"inetCfg":null})", Accessor::PInetCfg, "JSON error: Wrong type: null. Expected type: object"},
      {R"({"inetCfg":1.5})", Accessor::PInetCfg, "JSON error: Wrong type: float. Expected type: object"},
      {R"({"inetCfg":{"InetProxy":"proxy:70000"}})", Accessor::PInetCfg,
       R"(Inet: "InetProxy" "proxy:70000": port "70000" is not a number from 1 to 65535)"},
  };
  for (Case const& c : cases) {
    Ipc::ServerRequest cmd(anyProcessor());
    cmd.payload = parse(c.payload);
    std::string const got = jsonExcMessage([&] {
      switch (c.accessor) {
        case Accessor::CallName: cmd.callName(); break;
        case Accessor::JParams: cmd.jParams(); break;
        case Accessor::PInetCfg: cmd.pInetCfg(); break;
      }
    });
    EXPECT_EQ(c.message, got) << c.payload;
  }
}

TEST(IpcServerRequest, JParamsOnAnArrayThrowsWrongTypeArray) {
  Ipc::ServerRequest cmd(anyProcessor());
  cmd.payload = parse(R"({"method":"m","params":["a"]})");
  EXPECT_EQ("JSON error: Wrong type: array. Expected type: object",
            jsonExcMessage([&] { cmd.jParams(); }));
}

// ---------------------------------------------------------------------------
// GetUploads

TEST(IpcGetUploads, ResponseIsExactlyThePayloadTheVisitLeft) {
  struct Lists : Ipc::CmdProcessorLiteI {
    void visit(Ipc::GetUploads& c) override {
      c.payload = parse(R"({"uploads":[{"name":"a.pdf"}]})");
      left = c.payload.get();
    }
    json_t* left = nullptr;
  };
  auto const processor = std::make_shared<Lists>();
  auto const cmd = std::make_shared<Ipc::GetUploads>(processor);
  EXPECT_EQ("{}", text(cmd->payload));
  dispatch(*cmd, *processor);
  json::Object const resp = cmd->serializeResp();
  EXPECT_EQ(processor->left, resp.get());
  EXPECT_EQ(R"({"uploads":[{"name":"a.pdf"}]})", text(resp));
}

TEST(IpcGetUploads, ReadResponseSharesTheReceivedObject) {
  Ipc::GetUploads cmd(anyProcessor());
  json::Object const received = parse(R"({"uploads":[]})");
  cmd.deserializeResp(received);
  EXPECT_EQ(received.get(), cmd.payload.get());
}

TEST(IpcGetUploads, SendsNoRequestBody) {
  auto const cmd = std::make_shared<Ipc::GetUploads>(anyProcessor());
  EXPECT_EQ(hex(frame(cmd->typeCode(), 0)), hex(requestBytes(cmd).first));
}

// ---------------------------------------------------------------------------
// dumpReqOrResp

TEST(IpcDumpReqOrResp, ThirtyCharactersAreReturnedUnchanged) {
  std::string const t = "0123456789abcdefghij0123456789";
  ASSERT_EQ(30u, t.size());
  EXPECT_EQ(t, Ipc::dumpReqOrResp(json::Object(), t.c_str(), t.size()));
}

TEST(IpcDumpReqOrResp, ThirtyOneCharactersGiveTheFirstThirtyAndAnEllipsis) {
  std::string const t = "0123456789abcdefghij0123456789X";
  ASSERT_EQ(31u, t.size());
  std::string const shown = Ipc::dumpReqOrResp(json::Object(), t.c_str(), t.size());
  EXPECT_EQ("0123456789abcdefghij0123456789...", shown);
  EXPECT_EQ(33u, shown.size());
}

TEST(IpcDumpReqOrResp, LongTextIsCutToThirtyAndAnEllipsis) {
  std::string const t(1000, 'x');
  EXPECT_EQ(std::string(30, 'x') + "...", Ipc::dumpReqOrResp(json::Object(), t.c_str(), t.size()));
}

TEST(IpcDumpReqOrResp, LengthBoundsTheTextNotItsTerminator) {
  char const t[] = "{\"ok\":true}";
  EXPECT_EQ("{\"ok\"", Ipc::dumpReqOrResp(json::Object(), t, 5));
}

TEST(IpcDumpReqOrResp, ZeroLengthGivesEmptyEvenWithNullText) {
  EXPECT_EQ("", Ipc::dumpReqOrResp(json::Object(), nullptr, 0));
  EXPECT_EQ("", Ipc::dumpReqOrResp(json::Object(), "ignored", 0));
}

TEST(IpcDumpReqOrResp, NullTextWithNonZeroLengthThrowsLogicError) {
  for (unsigned long length : {1ul, 30ul, 31ul}) {
    try {
      Ipc::dumpReqOrResp(json::Object(), nullptr, length);
      ADD_FAILURE() << length << ": no exception";
    } catch (std::logic_error const& e) {
      EXPECT_STREQ("basic_string: construction from null is not valid", e.what()) << length;
    }
  }
}

TEST(IpcDumpReqOrResp, ShowsTheTextNotTheObject) {
  json::Object const obj = parse(R"({"other":"document"})");
  EXPECT_EQ("{\"resp\":true}", Ipc::dumpReqOrResp(obj, "{\"resp\":true}", 13));
}
