/// \file
/// The IPC commands of the user interface to the service.
///
/// Each command is one class, used on both sides for one exchange: the user
/// interface constructs it with its request data and hands it to the transport
/// (Ipc::CmdClient); the service's transport builds a fresh object of the same
/// class from the type code (createLiteCmd), reads the request into it, and
/// dispatches it to the service's Ipc::CmdProcessorLiteI, whose visit for the
/// class fills the response fields; the response then travels back into the
/// user interface's object.
///
/// Bodies are JSON objects. Writers leave out what the reader falls back to: a flag is written
/// only when true and read as true only for the JSON value true; a message is written only when
/// not empty and read only when it is a string. The response readers never throw. Commands that
/// carry a whole JSON document keep it in their payload and share it by reference count: nothing
/// is deep-copied on the way in or out (SaveCfg and TestCfg share the lists of their Settings).
///
/// Every command is owned by a std::shared_ptr and used by one thread at a time: the transport's,
/// during its exchange. JSON reference counts are not atomic, so what a command shares is neither
/// used nor destroyed elsewhere until the transport has let go of it (see CmdClient::run).
#ifndef QX_IPC_IPCCMDSLITE_H
#define QX_IPC_IPCCMDSLITE_H

#include "json/Json.h"
#include "settings/Settings.h"
#include "shared/CmdProcessorI.h"
#include "shared/InetCfg.h"
#include "shared/JsonCmdBase.h"

#include <boost/filesystem/path.hpp>
#include <boost/thread/mutex.hpp>

#include <cstdint>
#include <deque>
#include <ios>
#include <memory>
#include <string>

namespace Ipc {

class CmdProcessorLiteI;
class IsRunning;
class GetCfg;
class SaveCfg;
class Pause;
class Resume;
class ServerRequest;
class TestCfg;
class FileDrop;
class GetUploads;

/// The frame that every command of this library shares: the dispatch to
/// CmdProcessorLiteI. It has no data of its own.
class QX_LITE_API CmdLiteBase : public JsonCmdBase {
 public:
  using JsonCmdBase::JsonCmdBase;

  char const* name() const override = 0;
  /// Calls accept(CmdProcessorLiteI&) with p: only lite processors receive
  /// lite commands, so the reference is taken as one without a check.
  void accept(CmdProcessorI& p) override;
  /// Calls p.visit(*this) with the overload for the command's own class.
  virtual void accept(CmdProcessorLiteI& p) = 0;
};

/// The service's handler of the commands. Each visit does nothing unless
/// overridden, so that a command whose visit is not overridden answers with
/// the response its constructor and request left.
class QX_LITE_API CmdProcessorLiteI : public CmdProcessorI {
 public:
  ///@{
  /// Handles one command on the service's side: reads its request fields
  /// and sets its response fields. Runs on a transport thread.
  virtual void visit(IsRunning&) {}
  virtual void visit(GetCfg&) {}
  virtual void visit(SaveCfg&) {}
  virtual void visit(Pause&) {}
  virtual void visit(Resume&) {}
  virtual void visit(ServerRequest&) {}
  virtual void visit(TestCfg&) {}
  virtual void visit(FileDrop&) {}
  virtual void visit(GetUploads&) {}
  ///@}
};

/// Type codes: the receiving side builds a command of the class the code names.
enum LiteCmdType : CmdI::TypeCode {
  IS_RUNNING_TYPE = 1,
  GET_CFG_TYPE = 2,
  PAUSE_TYPE = 3,
  RESUME_TYPE = 4,
  SAVE_CFG_TYPE = 5,
  GET_UPLOADS_TYPE = 6,
  SERVER_REQUEST_TYPE = 8,
  TEST_CFG_TYPE = 9,
  FILE_DROP_TYPE = 10,
};

/// For log lines that show a request or response body: text itself when
/// length is at most 30, otherwise its first 30 characters and "...". obj is
/// not read. A null text with a non-zero length throws std::logic_error.
QX_LITE_API std::string dumpReqOrResp(json::Object const& obj, char const* text,
                                      unsigned long length);

/// Whether the service runs. Request: no body. Response: {FIELD_RESP: true}
/// when running, otherwise {}.
class QX_LITE_API IsRunning : public CmdLiteBase {
 public:
  /// Either side: the request has no data.
  explicit IsRunning(std::shared_ptr<CmdProcessorI> processor)
      : CmdLiteBase(std::move(processor), IS_RUNNING_TYPE) {}
  ~IsRunning() override;
  char const* name() const override;
  void sendReq() override;
  void readReq() override;
  json::Object serializeResp() const override;
  void deserializeResp(json::Object const& obj) override;
  void accept(CmdProcessorLiteI& p) override;

  bool running = false;  ///< the answer, set by the service's visit
};

/// The service's configuration. Request: no body. Response: the payload, the
/// JSON form of Settings.
class QX_LITE_API GetCfg : public CmdLiteBase {
 public:
  /// Either side: the request has no data.
  explicit GetCfg(std::shared_ptr<CmdProcessorI> processor)
      : CmdLiteBase(std::move(processor), GET_CFG_TYPE) {}
  ~GetCfg() override;
  char const* name() const override;
  void sendReq() override;
  void readReq() override;
  json::Object serializeResp() const override;
  void deserializeResp(json::Object const& obj) override;
  void accept(CmdProcessorLiteI& p) override;

  /// Service: replaces the payload by the JSON form of settings.
  void setSetts(Settings const& settings);
  /// A new record built from the payload; the payload is not changed.
  std::unique_ptr<Settings> pSetts() const;

  json::Object payload;  ///< the response: the JSON form of the service's Settings
};

/// Stores a new configuration. Request: the payload. Response: "ok" when the
/// service stored it, "msg" for the user.
class QX_LITE_API SaveCfg : public CmdLiteBase {
 public:
  /// The user interface: the payload is the JSON form of settings.
  SaveCfg(std::shared_ptr<CmdProcessorI> processor, Settings const& settings);
  /// The receiving side: an empty payload until the request is read.
  explicit SaveCfg(std::shared_ptr<CmdProcessorI> processor);
  ~SaveCfg() override;
  char const* name() const override;
  json::Object serializeReq() const override;
  void deserializeReq(json::Object const& obj) override;
  json::Object serializeResp() const override;
  void deserializeResp(json::Object const& obj) override;
  void accept(CmdProcessorLiteI& p) override;

  /// A new record built from the payload; the payload is not changed.
  std::unique_ptr<Settings> pSetts() const;

  json::Object payload;  ///< the request: the JSON form of the configuration to store
  bool ok = false;       ///< the response: whether the service stored it
  std::string msg;       ///< the response: what the user is told
};

/// Resumes taking new items. Request: no body. Response: "ok", "msg".
class QX_LITE_API Resume : public CmdLiteBase {
 public:
  /// Either side: the request has no data.
  explicit Resume(std::shared_ptr<CmdProcessorI> processor)
      : CmdLiteBase(std::move(processor), RESUME_TYPE) {}
  ~Resume() override;
  char const* name() const override;
  void sendReq() override;
  void readReq() override;
  json::Object serializeResp() const override;
  void deserializeResp(json::Object const& obj) override;
  void accept(CmdProcessorLiteI& p) override;

  bool ok = false;  ///< the response: whether the service did it
  std::string msg;  ///< the response: what the user is told

 protected:
  /// For Pause, which answers the same way under its own type code.
  Resume(std::shared_ptr<CmdProcessorI> processor, TypeCode type)
      : CmdLiteBase(std::move(processor), type) {}
};

/// Pauses taking new items; with delAll the waiting items are discarded by the
/// service. Request: {"delAll": true} or {} (a body even when false).
/// Response: as Resume.
class QX_LITE_API Pause : public Resume {
 public:
  /// The user interface gives delAll; the receiving side reads it.
  explicit Pause(std::shared_ptr<CmdProcessorI> processor, bool delAll = false)
      : Resume(std::move(processor), PAUSE_TYPE), delAll(delAll) {}
  ~Pause() override;
  char const* name() const override;
  void sendReq() override;
  void readReq() override;
  json::Object serializeReq() const override;
  void deserializeReq(json::Object const& obj) override;
  void accept(CmdProcessorLiteI& p) override;

  bool delAll;  ///< the request: discard the waiting items
};

/// Has the service call the server. Request: the payload {"method", "params",
/// and "inetCfg" when given}. Response: the payload as the service's visit
/// left it (the server's answer).
class QX_LITE_API ServerRequest : public CmdLiteBase {
 public:
  /// The user interface: the server's method callName with params (shared,
  /// not copied); inetCfg, when not null, is how the service is to reach
  /// the server instead of its own configuration.
  ServerRequest(std::shared_ptr<CmdProcessorI> processor, std::string const& callName,
                json::Object const& params, Inet::InetCfg const* inetCfg);
  /// The receiving side: an empty payload until the request is read.
  explicit ServerRequest(std::shared_ptr<CmdProcessorI> processor);
  ~ServerRequest() override;
  char const* name() const override;
  int reqTimeoutId() const override;
  json::Object serializeReq() const override;
  void deserializeReq(json::Object const& obj) override;
  json::Object serializeResp() const override;
  void deserializeResp(json::Object const& obj) override;
  void accept(CmdProcessorLiteI& p) override;

  /// "method"; throws json::Exc unless it is a string.
  std::string callName() const;
  /// "params" (shared); throws json::Exc unless it is an object.
  json::Object jParams() const;
  /// A new record from "inetCfg", or null without the key; throws json::Exc
  /// when the value is not an object or the record refuses it.
  std::unique_ptr<Inet::InetCfg> pInetCfg() const;

  json::Object payload;  ///< the request, then the response (see the class)
};

/// The service's list of uploads. Request: no body. Response: the payload as
/// the service's visit left it.
class QX_LITE_API GetUploads : public CmdLiteBase {
 public:
  /// Either side: the request has no data.
  explicit GetUploads(std::shared_ptr<CmdProcessorI> processor)
      : CmdLiteBase(std::move(processor), GET_UPLOADS_TYPE) {}
  ~GetUploads() override;
  char const* name() const override;
  void sendReq() override;
  void readReq() override;
  json::Object serializeResp() const override;
  void deserializeResp(json::Object const& obj) override;
  void accept(CmdProcessorLiteI& p) override;

  json::Object payload;  ///< the response: the service's list of uploads
};

/// Hands files to the service. The user interface builds the command on a file
/// or folder (prepareReq) and/or on files held in memory (addMemFile); the
/// request {"files":[{"name","size"},...]} is followed on the wire by the
/// contents, back to back, in pieces of at most PIECE_SIZE bytes that never
/// span two files. The service builds its command on its spool folder:
/// deserializeReq creates an empty temporary file (one file) or folder (any
/// other count) whose name ends in ".noqx", the pieces are appended to their
/// targets, and setResp (from the service's visit) gives the item its final
/// name. Response: "ok" when the item has its final name, "msg".
///
/// A piece's file is reopened for each piece on both sides, so nothing is held
/// open between pieces and what has arrived is on disk after every piece. The
/// transfer buffer grows to the largest piece and is reused. Nothing that a
/// failed drop left in the spool folder is removed: it keeps its ".noqx" name,
/// which the service's scanner ignores.
///
/// The receiving side writes only into targets directly inside the folder
/// that it created: a sent name with a folder part ("docs/a.pdf", "../a",
/// "/etc/a") fails as a target that cannot be opened.
class QX_LITE_API FileDrop : public CmdLiteBase {
 public:
  /// The largest piece of content moved at once.
  static constexpr std::size_t PIECE_SIZE = 1048576;

  /// One file of the drop.
  struct FileInf {
    /// User interface: the file on disk, or the name of a file in memory.
    /// Service: the target the content is written to.
    boost::filesystem::path path;
    std::uint64_t size;   ///< bytes of content
    std::streampos pos;   ///< content bytes already sent or received
    std::string content;  ///< a file held in memory; empty for a file on disk
  };

  /// path: the file or folder to drop (user interface), or the spool folder
  /// (service).
  FileDrop(std::shared_ptr<CmdProcessorI> processor, boost::filesystem::path const& path);
  ~FileDrop() override;
  char const* name() const override;
  int reqTimeoutId() const override;
  json::Object serializeReq() const override;
  /// Streams the contents, then finishes the request.
  void sendReqDone() override;
  /// Creates the targets; throws json::Exc on a malformed request.
  void deserializeReq(json::Object const& obj) override;
  /// Receives the contents, then finishes the request.
  void readReqDone() override;
  json::Object serializeResp() const override;
  void deserializeResp(json::Object const& obj) override;
  void accept(CmdProcessorLiteI& p) override;

  /// Adds a file held in memory (the name is not checked).
  void addMemFile(std::string const& name, std::string content);
  /// Lists the files to send: path itself, or the files directly in the
  /// folder path (sub-folders and empty files are skipped with a warning
  /// line). Returns whether there is anything to send. Throws
  /// boost::filesystem::filesystem_error for a path that does not exist or an
  /// entry that cannot be examined.
  bool prepareReq();
  /// Sends the next piece of content, or finishes the request when none is
  /// left. Called by sendReqDone and by each piece's completion.
  void sendFilesContent();
  /// Receives the next piece into its target, or finishes the request when
  /// every file is complete. Called by readReqDone and by each piece's
  /// completion.
  void readFilesContent();
  /// Service: gives the received item its final name; sets ok and msg.
  void setResp();
  /// Renames the temporary item p, within its folder, to its name without its
  /// last extension, under a name that no other entry holds.
  static bool removeExtension(boost::filesystem::path const& p);

  /// The dropped file or folder (user interface), or the spool folder
  /// (service).
  boost::filesystem::path path;
  /// The files of the drop, in the order their contents travel. The user
  /// interface's side takes each off as its last piece goes.
  std::deque<FileInf> files;
  bool ok = false;  ///< the response: whether the item has its final name
  std::string msg;  ///< the response: what the user is told

 private:
  QX_INTERNAL void growBuffer(std::size_t size);
  /// Whether target lies directly inside the folder the drop writes into.
  QX_INTERNAL bool isOwnTarget(boost::filesystem::path const& target) const;

  std::unique_ptr<char[]> buffer;  ///< the transfer buffer, shared by all pieces
  std::size_t bufferSize = 0;
};

/// Has the service test a configuration. Request: the payload (the JSON form
/// of the Settings under test). Response: a stream of result lines, each an
/// 8-byte length in host byte order and the text, produced while the service's
/// test runs, and ended by a record of length 0.
///
/// The lines are queued in a SharedRespMsgs that the command shares with its
/// copies: on the user-interface side each line that arrives is appended (on a
/// transport thread, under the queue's mutex) and a copy of the command is
/// passed to the processor's processCmd, which takes lines with getRespLine.
/// The end reaches the user interface through the completion of the command.
/// On the service side the queue is used from the transport's thread only.
///
/// A result line is at most MAX_RESP_LINE bytes, on both sides: the user
/// interface refuses a longer length record (a transfer error: it will not
/// allocate what a hostile peer announces), and the service never sends one.
/// It cuts a longer line, at a UTF-8 character boundary, to at most
/// MAX_RESP_LINE - strlen(CUT_MARKER) bytes and appends CUT_MARKER, so that
/// the cut line is within the limit and the test goes on.
class QX_LITE_API TestCfg : public CmdLiteBase {
 public:
  /// The longest result line, in bytes: 16 MiB.
  static constexpr std::size_t MAX_RESP_LINE = std::size_t(16) << 20;
  /// Ends a line that the service cut to the limit.
  static constexpr char CUT_MARKER[] = " [cut]";

  /// The queue of result lines that a command shares with its copies.
  struct SharedRespMsgs {
    std::deque<std::string> lines;  ///< oldest first; the empty line ends them
    boost::mutex mutex;             ///< guards lines on the user-interface side
  };

  /// The service's test, seen from the command.
  class TestRunnerI {
   public:
    /// Runs the next part of the test and appends its result lines to the
    /// back of the command's queue; false when the test is finished.
    virtual bool runStep() = 0;
    /// Whether the step that just ran handed its work to a thread of the
    /// service's own (Ipc::DeferredResponse) instead of appending its lines.
    /// The response then stops until the runner, once the work is done,
    /// appends them and calls execOneTest on the transport's thread.
    virtual bool waiting() const { return false; }
    virtual ~TestRunnerI() = default;
  };

  /// The user interface: the payload is the JSON form of settings.
  TestCfg(std::shared_ptr<CmdProcessorI> processor, Settings const& settings);
  /// The receiving side: an empty payload.
  explicit TestCfg(std::shared_ptr<CmdProcessorI> processor);
  /// A light copy that shares the queue; its payload is a new empty object and
  /// it has no runner.
  TestCfg(TestCfg const& other);
  ~TestCfg() override;
  char const* name() const override;
  int reqTimeoutId() const override;
  void sendResp() override;
  void readResp() override;
  json::Object serializeReq() const override;
  void deserializeReq(json::Object const& obj) override;
  json::Object serializeResp() const override;
  void deserializeResp(json::Object const& obj) override;
  void accept(CmdProcessorLiteI& p) override;

  /// A new record built from the payload.
  std::unique_ptr<Settings> pSetts() const;
  /// Runs test steps until a line is queued or the test ends, then sends the
  /// oldest queued line; stops without sending when a step waits (see
  /// TestRunnerI::waiting).
  void execOneTest();
  /// Service: sends the length record of line (the empty line: the end),
  /// then its text (sendRespLineBody).
  void sendRespLine(std::string const* line);
  /// Service: sends the text of line, takes it off the queue and goes on
  /// with the next line or test step; after the empty line, finishes.
  void sendRespLineBody(std::string const* line);
  /// Appends line to the back of the queue under its mutex.
  void lockAndAddToLines(std::string&& line);
  /// Moves the oldest result line into out; false when there is none (or only
  /// the end marker, which stays).
  bool getRespLine(std::string& out);

  /// The queue this command shares with its copies.
  std::shared_ptr<SharedRespMsgs> const& respMsgs() const { return lines; }

  json::Object payload;  ///< the request: the JSON form of the Settings under test
  std::unique_ptr<TestRunnerI> runner;  ///< installed by the service's visit

 private:
  /// The oldest queued line, cut to MAX_RESP_LINE first if it is longer.
  std::string const* frontWithinLimit();

  std::shared_ptr<SharedRespMsgs> lines;
  std::uint64_t m_wireLength = 0;  ///< the length record being sent or read
  std::string m_wireLine;          ///< the line being read
};

/// The service's factory: a new command of the class that type names, for the
/// receiving side, or null for a code it does not know. spoolFolder is where
/// dropped files go.
QX_LITE_API std::shared_ptr<CmdLiteBase> createLiteCmd(
    CmdI::TypeCode type, std::shared_ptr<CmdProcessorI> const& processor,
    boost::filesystem::path const& spoolFolder);

}  // namespace Ipc

#endif  // QX_IPC_IPCCMDSLITE_H
