// The example configuration that ships with the programs: the service's own
// start-up check accepts it, and it holds only keys that `qxlite config set`
// takes, so that a person who copies it learns only real keys.
#include "apps/ConfigFile.h"
#include "apps/svc/SvcProcessor.h"

#include <gtest/gtest.h>

#include <memory>

namespace {

boost::filesystem::path const kExample = boost::filesystem::path(QX_SOURCE_DIR) / "examples" / "config.json";

TEST(ExampleConfig, TheServiceAcceptsIt) {
  std::unique_ptr<Settings> accepted;
  try {
    accepted = std::make_unique<Settings>(qxsvc::acceptConfigFile(kExample));
  } catch (std::exception const& e) {
    FAIL() << e.what();
  }
  Settings const& settings = *accepted;
  EXPECT_EQ("acme-docs", settings.AccountId);
  EXPECT_EQ(1042, settings.SpoolerId);
  EXPECT_EQ(604800u, settings.BackupExpireSecs);
  EXPECT_EQ(15u, settings.MinFilesToZip);
  EXPECT_EQ(4u, settings.ConcurrentUploads);
}

TEST(ExampleConfig, HoldsOnlyConfigurationKeys) {
  json::Object const raw = qxapp::readConfigObject(kExample);
  std::size_t count = 0;
  char const* key;
  json_t* value;
  json_object_foreach(raw.get(), key, value) {
    EXPECT_EQ(1u, qxapp::configKeys().count(key)) << "not a configuration key: " << key;
    ++count;
  }
  EXPECT_EQ(13u, count);
}

}  // namespace
