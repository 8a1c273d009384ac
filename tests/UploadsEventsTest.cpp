// What qxlite-ui tells a person between two snapshots of the uploads: a job
// that became rejected, a queue that became held; each once.
#include "apps/ui/UploadsEvents.h"

#include <QCoreApplication>

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using qxui::UploadRow;
using qxui::UploadsSnapshot;

UploadRow job(char const* id, char const* title, char const* state, char const* error = "") {
  UploadRow r;
  r.id = QString::fromLatin1(id);
  r.title = QString::fromUtf8(title);
  r.state = QString::fromLatin1(state);
  r.lastError = QString::fromUtf8(error);
  return r;
}

UploadsSnapshot snapshot(std::vector<UploadRow> rows, char const* held = "") {
  UploadsSnapshot s;
  s.rows = std::move(rows);
  s.held = QString::fromUtf8(held);
  return s;
}

// The notices as "title: text" lines.
std::vector<std::string> told(UploadsSnapshot const* before, UploadsSnapshot const& after) {
  std::vector<std::string> lines;
  for (qxui::UploadsNotice const& n : qxui::noticesBetween(before, after)) {
    lines.push_back((n.title + QStringLiteral(" | ") + n.text).toStdString());
  }
  return lines;
}

TEST(UploadsEventsTest, EachRejectionAndEachHeldQueueIsToldOnce) {
  UploadsSnapshot const empty = snapshot({});
  UploadsSnapshot const queued = snapshot({job("j1", "a.pdf", "queued")});
  UploadsSnapshot const rejected = snapshot({job("j1", "a.pdf", "rejected", "the server refused it: 403")});
  UploadsSnapshot const held = snapshot({job("j1", "a.pdf", "queued")}, "no server address is set (\"InetServer\")");
  UploadsSnapshot const heldOther = snapshot({job("j1", "a.pdf", "queued")}, "the credentials file is missing");
  struct Row {
    char const* name;
    UploadsSnapshot const* before;
    UploadsSnapshot after;
    std::vector<std::string> notices;
  };
  std::vector<Row> const rows{
      {"nothing changed", &queued, queued, {}},
      {"a job became rejected", &queued, rejected, {"Upload rejected | a.pdf: the server refused it: 403"}},
      {"it stays rejected", &rejected, rejected, {}},
      {"a new job arrives rejected", &empty, rejected, {"Upload rejected | a.pdf: the server refused it: 403"}},
      {"rejected without a reason", &queued, snapshot({job("j1", "ü.pdf", "rejected")}), {"Upload rejected | ü.pdf"}},
      {"the first snapshot's rejected jobs were there already", nullptr, rejected, {}},
      {"the first snapshot's held queue is told", nullptr, held,
       {"Uploads held | no server address is set (\"InetServer\")"}},
      {"the queue became held", &queued, held, {"Uploads held | no server address is set (\"InetServer\")"}},
      {"it stays held", &held, held, {}},
      {"held for another reason", &held, heldOther, {"Uploads held | the credentials file is missing"}},
      {"no longer held", &held, queued, {}},
      {"cancelled and failed jobs are not told", &queued,
       snapshot({job("j1", "a.pdf", "cancelled"), job("j2", "b.pdf", "failed", "gave up")}), {}},
      {"both at once, jobs first", &queued,
       snapshot({job("j1", "a.pdf", "rejected", "too large"), job("j2", "b.pdf", "rejected", "bad type")}, "offline"),
       {"Upload rejected | a.pdf: too large", "Upload rejected | b.pdf: bad type", "Uploads held | offline"}},
  };
  for (Row const& row : rows) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(row.notices, told(row.before, row.after));
  }
}

}  // namespace

int main(int argc, char** argv) {
  QCoreApplication app(argc, argv);
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
