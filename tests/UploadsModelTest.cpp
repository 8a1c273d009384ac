// The uploads table of qxlite-ui: the service's list (GetUploads) read into
// a snapshot, and the texts of each cell, with the rate worked out between
// two snapshots.
#include "apps/ui/UploadsModel.h"
#include "apps/ui/UploadsSnapshot.h"
#include "tests/TestUtil.h"

#include <QCoreApplication>
#include <QLocale>

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using qxui::UploadsModel;

// Every cell but the next try (local time) of row r, joined by " | ".
std::string rowText(UploadsModel const& model, int r) {
  std::string text;
  for (int c = 0; c < UploadsModel::ColumnCount; ++c) {
    if (c == UploadsModel::NextTry) continue;
    text += (c == 0 ? "" : " | ") + model.index(r, c).data().toString().toStdString();
  }
  return text;
}

std::vector<std::string> rows(UploadsModel const& model) {
  std::vector<std::string> result;
  for (int r = 0; r < model.rowCount(); ++r) result.push_back(rowText(model, r));
  return result;
}

qxui::UploadsSnapshot snapshot(std::string const& list) { return qxui::snapshotOf(qxtest::parse(list)); }

TEST(UploadsModelTest, EachJobAndWaitingItemIsARowOfTexts) {
  struct Row {
    std::string list;
    std::vector<std::string> rows;
    bool paused;
    std::string held;
  };
  std::vector<Row> const table{
      {R"j({"uploads":[],"totals":{}})j", {}, false, ""},
      {R"j({"uploads":[{"id":"j1","name":"report.pdf","state":"queued","size":3000,"sent":0,"attempts":2,
           "nextTry":1900000000,"error":"HTTP 503"}],"held":"no server address is set (\"InetServer\")"})j",
       {"report.pdf | Queued | 2.9 KiB | 0% |  | 2 | HTTP 503"},
       false,
       "no server address is set (\"InetServer\")"},
      {R"j({"uploads":[{"id":"j2","name":"2 files: a.pdf, b.csv","state":"uploading","size":2048,"sent":512,
           "attempts":1},{"id":"j3","name":"c.pdf","state":"done","size":10,"sent":10,"attempts":1}],
           "paused":true,"waiting":[{"name":"d.pdf","size":4}]})j",
       {"2 files: a.pdf, b.csv | Uploading | 2.0 KiB | 25% |  | 1 | ", "c.pdf | Done | 10 B | 100% |  | 1 | ",
        "d.pdf | Waiting | 4 B |  |  |  | "},
       true,
       ""},
      {R"j({"uploads":[{"id":"j4","name":"x.pdf","state":"rejected","size":0,"sent":0,"attempts":0,
           "error":"the server refused it"},{"id":"j5","name":"y.pdf","state":"cancelled","size":5,"sent":0,
           "attempts":0},{"id":"j6","name":"z.pdf","state":"failed","size":5,"sent":0,"attempts":9}]})j",
       {"x.pdf | Rejected | 0 B | 0% |  | 0 | the server refused it", "y.pdf | Cancelled | 5 B | 0% |  | 0 | ",
        "z.pdf | Failed | 5 B | 0% |  | 9 | "},
       false,
       ""},
  };
  for (Row const& row : table) {
    SCOPED_TRACE(row.list);
    UploadsModel model;
    qxui::UploadsSnapshot const s = snapshot(row.list);
    model.setSnapshot(s, 0);
    EXPECT_EQ(row.rows, rows(model));
    EXPECT_EQ(row.paused, s.paused);
    EXPECT_EQ(row.held, s.held.toStdString());
  }
}

TEST(UploadsModelTest, TheNextTryIsShownOnlyForAJobThatHasOne) {
  UploadsModel model;
  model.setSnapshot(snapshot(R"({"uploads":[{"id":"a","name":"a","state":"queued","size":1,"sent":0,
      "attempts":1,"nextTry":1900000000},{"id":"b","name":"b","state":"queued","size":1,"sent":0,"attempts":0}]})"),
                    0);
  EXPECT_FALSE(model.index(0, UploadsModel::NextTry).data().toString().isEmpty());
  EXPECT_TRUE(model.index(1, UploadsModel::NextTry).data().toString().isEmpty());
}

TEST(UploadsModelTest, TheRateIsWhatAnUploadingJobSentBetweenTwoSnapshots) {
  UploadsModel model;
  auto uploading = [](long sent, char const* state) {
    return snapshot(std::string(R"({"uploads":[{"id":"j","name":"big.pdf","state":")") + state +
                    R"(","size":10485760,"sent":)" + std::to_string(sent) + R"(,"attempts":1}]})");
  };
  model.setSnapshot(uploading(1048576, "uploading"), 0);
  EXPECT_EQ("", model.index(0, UploadsModel::Rate).data().toString().toStdString());  // nothing to compare with
  model.setSnapshot(uploading(3145728, "uploading"), 1000);
  EXPECT_EQ("2.0 MiB/s", model.index(0, UploadsModel::Rate).data().toString().toStdString());
  EXPECT_EQ(300, model.index(0, UploadsModel::Progress).data(UploadsModel::kProgressRole).toInt());
  model.setSnapshot(uploading(4194304, "uploading"), 2000);
  EXPECT_EQ("512.0 KiB/s", model.index(0, UploadsModel::Rate).data().toString().toStdString());
  // A job that no longer uploads has no rate.
  model.setSnapshot(uploading(10485760, "done"), 1000);
  EXPECT_EQ("", model.index(0, UploadsModel::Rate).data().toString().toStdString());
}

}  // namespace

int main(int argc, char** argv) {
  QCoreApplication app(argc, argv);
  QLocale::setDefault(QLocale::c());
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
