// A whole configuration text parsed, built into a Settings, serialized and
// written back, against bare jansson loading and dumping the same text; and
// the file-type rule on a single file name.
#include "json/Json.h"
#include "settings/Settings.h"

#include <benchmark/benchmark.h>
#include <boost/filesystem.hpp>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

namespace {

char const kConfigText[] =
    R"({"AccountId":"acme-docs","SpoolerId":1042,"KeyId":7,"PublicKey":"MCowBQYDK2VwAyEA7Xq0x1Yh",)"
    R"("IgnoredExtension":["tmp","noqx","ds_store","db"],)"
    R"("SrvFileExts":["pdf","ps","xps","oxps","xml","json","js","csv","xls","xlsx","ods","zip","tar","enm","qxw"],)"
    R"("ReceiveFolder":"/srv/qx/in","SpoolFolder":"/srv/qx/out","BackupExpireSecs":172800,)"
    R"("BackupFolder":"/srv/qx/backup","EnableLogging":true,"MinFilesToZip":-5,"ConcurrentUploads":4,)"
    R"("IpcPort":45700,"MaxConnIdleSecs":300,"InetServer":"https://upload.example.org",)"
    R"("InetAltServer":"https://upload2.example.org","EmailSmtpUrl":"smtp://mail.example.org:587",)"
    R"("EmailFrom":"qx@example.org","EmailTo":"ops@example.org"})";

void BM_ConfigRoundTripBareJansson(benchmark::State& state) {
  for (auto _ : state) {
    json_error_t error;
    json_t* obj = json_loadb(kConfigText, sizeof kConfigText - 1, 0, &error);
    char* text = json_dumps(obj, JSON_COMPACT);
    benchmark::DoNotOptimize(text);
    std::free(text);
    json_decref(obj);
  }
}
BENCHMARK(BM_ConfigRoundTripBareJansson);

void BM_ConfigRoundTripSettings(benchmark::State& state) {
  for (auto _ : state) {
    json::Object const obj = json::strToObject(kConfigText, sizeof kConfigText - 1);
    Settings const settings(obj);
    std::string text = json::jsonToString(settings.serialize(), false);
    benchmark::DoNotOptimize(text);
  }
}
BENCHMARK(BM_ConfigRoundTripSettings);

void BM_CheckPathForAcceptedExtsSingleFile(benchmark::State& state) {
  namespace fs = boost::filesystem;
  fs::path const dir = fs::temp_directory_path() / fs::unique_path("qxbench-%%%%-%%%%");
  fs::create_directories(dir);
  fs::path const file = dir / "Quarterly Report.PDF";
  std::ofstream(file.string()) << "%PDF-1.7";
  Settings const settings{json::Object()};
  for (auto _ : state) {
    benchmark::DoNotOptimize(settings.checkPathForAcceptedExts(file));
  }
  fs::remove_all(dir);
}
BENCHMARK(BM_CheckPathForAcceptedExtsSingleFile);

}  // namespace

BENCHMARK_MAIN();
