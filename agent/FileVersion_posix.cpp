// POSIX executables carry no version resource: a product's version then comes from
// "Products.cfg" alone.

#include <string>
#include <string_view>

#include "agent/InstalledProducts.h"
#include "common/KroStatus.h"

namespace KroAgent::detail {

long ReadFileVersion(const std::string& /*file*/, std::string& versionText) {
  versionText.clear();
  return kro::status::Ok;
}

bool IsAbsoluteProductPath(std::string_view path) {
  return !path.empty() && path[0] == '/';
}

}  // namespace KroAgent::detail
