#include "apps/JobCommand.h"

namespace qxapp {

namespace {

struct JobActionNames {
  char const* method;
  char const* done;
};

JobActionNames const& namesOf(JobAction action) {
  static JobActionNames const kCancel{"qxlite.cancel", "cancelled"};
  static JobActionNames const kRetry{"qxlite.retry", "retrying"};
  return action == JobAction::Cancel ? kCancel : kRetry;
}

}  // namespace

char const* jobMethod(JobAction action) { return namesOf(action).method; }

char const* jobDoneWord(JobAction action) { return namesOf(action).done; }

bool jobActionAllowed(JobAction action, std::string const& state) {
  if (state == "queued") return true;
  return action == JobAction::Cancel && state == "uploading";
}

std::shared_ptr<Ipc::ServerRequest> jobRequest(JobAction action, std::string const& jobId) {
  json::Object params;
  params.setAt("id", json::Value(jobId));
  return std::make_shared<Ipc::ServerRequest>(nullptr, jobMethod(action), params, nullptr);
}

std::string jobRefusal(json::Object const& answer) {
  if (answer["ok"].isTrue()) return std::string();
  json::Value const msg = answer["msg"];
  return msg.isString() ? msg.asStringSafe() : std::string("the service did not say whether it did");
}

}  // namespace qxapp
