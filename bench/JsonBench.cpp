// The cost of the JSON layer over bare jansson calls, measured in one run:
// member lookup and setAt on an object of configuration size.
#include "json/Json.h"

#include <benchmark/benchmark.h>

#include <string>
#include <vector>

namespace {

std::vector<std::string> const& keys() {
  static std::vector<std::string> const k = [] {
    std::vector<std::string> v;
    for (char const* name : {"AccountId", "SpoolerId", "KeyId", "PublicKey", "IgnoredExtension",
                             "SrvFileExts", "ReceiveFolder", "SpoolFolder", "BackupExpireSecs",
                             "BackupFolder", "EnableLogging", "AllowRemoteConfig", "MinFilesToZip",
                             "UseDirName", "ConcurrentUploads", "IpcPort", "MaxConnIdleSecs",
                             "IpcForceIP4", "EnableCurlDbgLog", "InetServer"}) {
      v.emplace_back(name);
    }
    return v;
  }();
  return k;
}

json_t* bareConfigObject() {
  json_t* obj = json_object();
  json_int_t i = 1;
  for (std::string const& key : keys()) json_object_set_new(obj, key.c_str(), json_integer(i++));
  return obj;
}

void BM_LookupBareJansson(benchmark::State& state) {
  json_t* obj = bareConfigObject();
  std::size_t i = 0;
  for (auto _ : state) {
    json_t* v = json_object_get(obj, keys()[i++ % keys().size()].c_str());
    benchmark::DoNotOptimize(json_integer_value(v));
  }
  json_decref(obj);
}
BENCHMARK(BM_LookupBareJansson);

void BM_LookupJsonObject(benchmark::State& state) {
  json::Object const obj{json::Value(bareConfigObject())};
  std::size_t i = 0;
  for (auto _ : state) {
    json::Value const v = obj[keys()[i++ % keys().size()].c_str()];
    benchmark::DoNotOptimize(v.asInt());
  }
}
BENCHMARK(BM_LookupJsonObject);

void BM_SetBareJansson(benchmark::State& state) {
  json_t* obj = bareConfigObject();
  json_int_t n = 0;
  std::size_t i = 0;
  for (auto _ : state) {
    json_object_set_new(obj, keys()[i++ % keys().size()].c_str(), json_integer(++n));
  }
  json_decref(obj);
}
BENCHMARK(BM_SetBareJansson);

void BM_SetAtJsonObject(benchmark::State& state) {
  json::Object obj{json::Value(bareConfigObject())};
  json_int_t n = 0;
  std::size_t i = 0;
  for (auto _ : state) {
    obj.setAt(keys()[i++ % keys().size()].c_str(), json::Value(++n));
  }
}
BENCHMARK(BM_SetAtJsonObject);

}  // namespace

BENCHMARK_MAIN();
