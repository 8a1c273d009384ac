// qxapp job commands: cancel and retry of one job, which the service answers
// itself as server calls of its own methods ("qxlite.cancel",
// "qxlite.retry" with {"id": JOB}; the answer is {"ok":true} or
// {"msg": why not}). Shared by the service, which serves the methods, and by
// qxlite and qxlite-ui, which ask for them. Plain functions, any thread.
#ifndef QX_APPS_JOBCOMMAND_H
#define QX_APPS_JOBCOMMAND_H

#include "ipc/IpcCmdsLite.h"
#include "json/Json.h"

#include <memory>
#include <string>

namespace qxapp {

enum class JobAction { Cancel, Retry };

// The method the service serves for action.
char const* jobMethod(JobAction action);
// What the service logs, and the client says, once it did: "cancelled",
// "retrying".
char const* jobDoneWord(JobAction action);
// Whether the service takes action on a job in state (a state of the list
// of uploads: "queued", "uploading", "done", ...). A job that is over takes
// neither; one that is uploading may be cancelled but not retried.
bool jobActionAllowed(JobAction action, std::string const& state);
// The server call that asks for action on jobId.
std::shared_ptr<Ipc::ServerRequest> jobRequest(JobAction action, std::string const& jobId);
// Why the service did not act, in its own words; empty when it did.
std::string jobRefusal(json::Object const& answer);

}  // namespace qxapp

#endif  // QX_APPS_JOBCOMMAND_H
