// The browser UI's URI-to-file mapping, with the one property that matters: whatever a client
// sends, the file the server would open lies inside the "User Interface" folder once the path
// is normalised lexically (every "." and ".." resolved, as the file system would resolve them).

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>

#include "common/FilePath.h"
#include "core/KroStatus.h"
#include "fuzz/FuzzSupport.h"
#include "server/BrowserRouter.h"

namespace {

using kro::fuzz::Check;

const std::wstring kUiFolder = L"/opt/kro/install/User Interface/";

bool Inside(const std::filesystem::path& file, const std::filesystem::path& folder) {
  const std::filesystem::path normal = file.lexically_normal();
  auto at = normal.begin();
  for (const auto& part : folder) {
    if (part.empty()) {
      continue;  // the folder's trailing separator
    }
    if (at == normal.end() || *at != part) {
      return false;
    }
    ++at;
  }
  return true;
}

void CheckMapping(const kro::BrowserRouter& router, const std::string& uri, bool agent) {
  std::wstring mapped;
  if (router.MapUriToFile(uri, agent, mapped) != kro::status::Ok) {
    return;
  }
  Check(Inside(kro::ToFilePath(mapped), kro::ToFilePath(kUiFolder)),
        agent ? "an agent URI maps outside the UI folder" : "a URI maps outside the UI folder",
        uri + " -> " + kro::ToFilePath(mapped).string());
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  kro::fuzz::QuietLogger();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const kro::BrowserRouter router(nullptr, kUiFolder, 0);
  const std::string uri(kro::fuzz::Text(data, size));
  for (const bool agent : {true, false}) {
    // As the handler serves it (the path the session gate judged), and the mapping by itself.
    CheckMapping(router, kro::RoutedPath(uri, agent), agent);
    CheckMapping(router, uri, agent);
  }
  return 0;
}
