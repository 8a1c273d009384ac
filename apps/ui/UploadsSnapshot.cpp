#include "apps/ui/UploadsSnapshot.h"

namespace qxui {

namespace {

qint64 intOf(json::Object const& obj, char const* key) {
  json::Value const v = obj[key];
  return v.isInteger() ? static_cast<qint64>(json_integer_value(v.get())) : 0;
}

QString textOf(json::Object const& obj, char const* key) { return QString::fromStdString(obj[key].asStringSafe()); }

}  // namespace

UploadsSnapshot snapshotOf(json::Object const& list) {
  UploadsSnapshot s;
  json::Array const jobs(list["uploads"].isArray() ? list["uploads"] : json::Value(json::Array()));
  for (std::size_t i = 0; i < jobs.size(); ++i) {
    json::Object const job(jobs[i]);
    s.rows.push_back(UploadRow{textOf(job, "id"), textOf(job, "name"), textOf(job, "state"), intOf(job, "size"),
                               intOf(job, "sent"), intOf(job, "attempts"), intOf(job, "nextTry"),
                               textOf(job, "error")});
  }
  json::Array const waiting(list["waiting"].isArray() ? list["waiting"] : json::Value(json::Array()));
  for (std::size_t i = 0; i < waiting.size(); ++i) {
    json::Object const item(waiting[i]);
    s.rows.push_back(UploadRow{QString(), textOf(item, "name"), QStringLiteral("waiting"), intOf(item, "size"), 0, 0,
                               0, QString()});
  }
  s.paused = list["paused"].isTrue();
  s.held = textOf(list, "held");
  s.throughput = intOf(list, "throughput");
  return s;
}

}  // namespace qxui
