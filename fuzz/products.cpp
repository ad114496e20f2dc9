// "Products.cfg": the installed-products list as the module loads it, the look-ups the agent
// makes in it, and the browser UI's report, which must stay JSON whatever the file held.

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "agent/InstalledProducts.h"
#include "core/KroStatus.h"
#include "fuzz/FuzzSupport.h"
#include "hlp/Json.h"

namespace {

using kro::fuzz::Check;
using KroAgent::InstalledProducts;
using KroAgent::ProductRecord;

template <size_t N>
bool Terminated(const char (&field)[N]) {
  return std::memchr(field, '\0', N) != nullptr;
}

void CheckRecord(const ProductRecord& record) {
  Check(Terminated(record.versionText) && Terminated(record.name) &&
            Terminated(record.displayName) && Terminated(record.url) && Terminated(record.path) &&
            Terminated(record.patchLevel),
        "a product's text field is not zero-terminated");
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  kro::fuzz::QuietLogger();
  // The module's own table, which the report routine reads. The installation folder is set, so
  // a product without a version asks the service executable there instead of listing folders
  // the file names.
  const std::string folder = kro::fuzz::ScratchDir().string() + "/";
  InstalledProducts::Instance().SetFolders(folder, folder);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  InstalledProducts& products = InstalledProducts::Instance();
  kro::fuzz::WriteFile(products.KestaFolder() + "Products.cfg", kro::fuzz::Text(data, size));
  products.ReloadProducts();

  KroAgent::ProductMap table;
  products.QueryProducts(table);
  for (const auto& [id, record] : table) {
    CheckRecord(record);
    ProductRecord found;
    Check(products.FindById(id, found) == kro::status::Ok && found.id == id,
          "a listed product is not found by its id", record.name);
    Check(products.FindByName(record.name, found) == kro::status::Ok,
          "a listed product is not found by its name", record.name);
    CheckRecord(found);
    uint32_t packed = 0;
    if (record.packedVersion != 0) {
      Check(products.FindVersion(id, static_cast<uint8_t>(record.packedVersion >> 24), packed) ==
                kro::status::Ok,
            "a product's version is not found", record.versionText);
    }
  }

  const char* answer = nullptr;
  size_t length = 0;
  Check(KroAgent::GetInstalledProductsBrowser(nullptr, 0, &answer, &length) == kro::status::Ok &&
            answer != nullptr,
        "the products report gives no answer");
  const std::string report(answer, length);
  delete[] answer;
  Check(hlp::JsonParser().Parse(report) != nullptr, "the products report is no JSON", report);
  return 0;
}
