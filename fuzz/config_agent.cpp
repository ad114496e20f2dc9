// "AgentConfig.cfg" through the agent's configuration class: the file, the get routine, and the
// saved file, which a restarted agent must read back as the same settings.

#include <cstddef>
#include <cstdint>

#include "config/KroAgentConfiguration.h"
#include "fuzz/FuzzSupport.h"
#include "fuzz/SettingsFileFuzz.h"

using kro::fuzz::Check;

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  kro::fuzz::QuietLogger();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const auto folder = kro::fuzz::ScratchDir();
  kro::KroAgentConfiguration settings;
  kro::fuzz::LoadSettingsFile(settings, folder / kro::KroAgentConfiguration::kFileName,
                              kro::fuzz::Text(data, size));
  const std::string answered = kro::fuzz::Answered(settings);

  const auto saved = folder / "Saved.cfg";
  settings.Save(saved.string());
  kro::KroAgentConfiguration restarted;
  restarted.SetDefaults();
  Check(restarted.Load(saved.string()) == kro::status::Ok, "the saved file does not load",
        answered);
  Check(kro::fuzz::Answered(restarted) == answered, "the saved file loads as other settings",
        answered + " | " + kro::fuzz::Answered(restarted));
  return 0;
}
