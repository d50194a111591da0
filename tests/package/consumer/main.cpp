// The C++ half of the consumer: the facade's headers and its symbols from the installed
// library.
#include <kestrova/facade.h>
#include <kestrova/version.h>

#include <cstdio>
#include <string>

extern "C" int c_host_check(void);

int main() {
  const bool statusCodes = Kestrova::statusCodeFromRawValue(2) == Kestrova::StatusCode::connected &&
                           !Kestrova::statusCodeFromRawValue(3);
  const KestrovaConfig config("token");
  const bool defaults = config.url() == KestrovaConfig::kDefaultURL;
  const bool version = std::string(KESTROVA_VERSION_STRING).size() > 0;
  const int result = statusCodes && defaults && version && c_host_check() == 0 ? 0 : 1;
  std::printf("consumer: %s\n", result == 0 ? "ok" : "FAILED");
  return result;
}
