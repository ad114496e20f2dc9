// "WebServer.cfg": the reachability options and the redirect table as the request handler reads
// them, and what the table makes of requests for each path the file names.

#include <cstddef>
#include <cstdint>
#include <sstream>
#include <string>

#include "core/KroStatus.h"
#include "fuzz/FuzzSupport.h"
#include "server/WebConfiguration.h"

using kro::fuzz::Check;

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  kro::fuzz::QuietLogger();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(kro::fuzz::Text(data, size));
  kro::WebConfiguration config;
  // No connection leaves the process: a target "accepts connections" by its port's parity, and
  // time moves a minute per look.
  uint64_t now = 0;
  config.SetClock([&now] { return now += 600'000'000; });
  config.SetConnector([](const std::string& /*host*/, uint16_t port, uint32_t /*timeout*/) {
    return port % 2 == 0;
  });
  std::istringstream in(text);
  Check(config.Parse(in) == kro::status::Ok, "reading a text stream fails");

  // Every word of the file as a request path: each source the file names is among them.
  std::istringstream words(text);
  std::string word;
  while (words >> word) {
    std::string host;
    uint16_t port = 0;
    kro::WebConfiguration::ParseAbsoluteTarget(word, host, port);
    std::string uri = word;
    std::string location;
    uint32_t code = 0;
    kro::RedirectEntry entry;
    const bool listed = config.FindRedirect(word, entry) == kro::status::Ok;
    if (config.ApplyRedirect(uri, location, code) == kro::RedirectAction::Redirect) {
      Check(listed && code >= 300 && code <= 308 && location == entry.target && !location.empty(),
            "a redirect answers with a code or target the file does not give", word);
    } else {
      Check(uri == word || (listed && uri == entry.target),
            "a request served locally was rewritten to a path the file does not give", word);
    }
  }
  return 0;
}
