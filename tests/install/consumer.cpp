// A program that uses the installed library as any user would.
#include <json/Json.h>
#include <settings/Settings.h>
#include <shared/Platform.h>

#include <iostream>

int main() {
  Platform::inst().setSysCfgDir("/etc");
  Settings const settings{json::Object()};
  std::cout << Settings::IPC_DEFAULT_SVC_PORT_STR() << " " << Settings::OLD_CFG_FILE_PATH().string()
            << " " << json::jsonToString(settings.IgnoredExtension, false) << "\n";
  return 0;
}
