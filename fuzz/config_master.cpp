// "MasterConfig.cfg" through the management server's configuration class and its routines.

#include <cstddef>
#include <cstdint>
#include <string>

#include "config/KroMasterConfiguration.h"
#include "core/KroStatus.h"
#include "fuzz/FuzzSupport.h"
#include "fuzz/SettingsFileFuzz.h"
#include "hlp/Json.h"

using kro::fuzz::Check;

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  kro::fuzz::QuietLogger();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  kro::KroMasterConfiguration settings;
  kro::fuzz::LoadSettingsFile(settings,
                              kro::fuzz::ScratchDir() / kro::KroMasterConfiguration::kFileName,
                              kro::fuzz::Text(data, size));
  for (auto routine : {&kro::KroMasterConfiguration::GetCacheSetting,
                       &kro::KroMasterConfiguration::GetBrowserTimeout}) {
    const char* answer = nullptr;
    size_t length = 0;
    Check((settings.*routine)(nullptr, 0, &answer, &length) == kro::status::Ok && answer != nullptr,
          "a master routine gives no answer");
    const std::string text(answer, length);
    delete[] answer;
    Check(hlp::JsonParser().Parse(text) != nullptr, "a master routine's answer is no JSON", text);
  }
  return 0;
}
