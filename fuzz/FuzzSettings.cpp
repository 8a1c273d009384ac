// Settings from any JSON object, and the server's reconfiguration of a record.
// The form a record writes, read and written again, must be the same form
// (the record itself may differ where the writer deliberately leaves a value
// out: a node id below 1 reads back as 0); reporting and reconfiguring must
// not crash. The one exception is the legacy e-mail pair "SmtpHost" and
// "SmtpPort": it is taken as it stands (any host text, any port up to
// 4294967295), so it can make an SMTP URL that the e-mail reader refuses.
#include "fuzz/FuzzUtil.h"
#include "json/Json.h"
#include "settings/Settings.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>

bool const g_quiet = qxfuzz::quietLog();

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  json::Object obj;
  try {
    obj = json::strToObject(reinterpret_cast<char const*>(data), size);
  } catch (json::Exc const&) {
    return 0;
  }

  // A list element that is not a string makes the record's normalisation
  // throw json::Exc, which the constructor lets pass: the object is refused.
  std::unique_ptr<Settings const> read;
  try {
    read = std::make_unique<Settings const>(obj);
  } catch (json::Exc const&) {
    return 0;
  }
  json::Object const form = read->serialize();
  bool const legacySmtp =
      obj["EmailSmtpUrl"].asStringSafe().empty() && !obj["SmtpHost"].asStringSafe().empty();
  if (!legacySmtp && !(Settings(form).serialize() == form)) std::abort();
  (void)read->dump();

  Settings reconfigured{json::Object()};
  try {
    long long stopSecs = 0;
    (void)reconfigured.reconfig(obj, &stopSecs);
    reconfigured.fix();
    json::Object const after = reconfigured.serialize();
    if (!(Settings(after).serialize() == after)) std::abort();
  } catch (json::Exc const&) {
  }
  return 0;
}
