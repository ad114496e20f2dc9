// The POSIX registry file (regedit's export format): what readers parse from a file that
// other programs and people write, and the writer's promise that the text it serialises reads
// back as the same keys and values, also after a value was set the way a writer sets it.

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "common/RegistryFile.h"
#include "fuzz/FuzzSupport.h"

namespace {

using kro::RegistryFile;
using kro::fuzz::Check;

bool SameKeys(const RegistryFile& a, const RegistryFile& b) {
  if (a.Keys().size() != b.Keys().size()) {
    return false;
  }
  for (size_t k = 0; k < a.Keys().size(); ++k) {
    const kro::RegistryKey& x = a.Keys()[k];
    const kro::RegistryKey& y = b.Keys()[k];
    if (x.name != y.name || x.values.size() != y.values.size()) {
      return false;
    }
    for (size_t v = 0; v < x.values.size(); ++v) {
      if (x.values[v].name != y.values[v].name || x.values[v].type != y.values[v].type ||
          x.values[v].data != y.values[v].data) {
        return false;
      }
    }
  }
  return true;
}

/** @brief Serialises, reads back and compares: the round trip every write makes. */
void CheckRoundTrip(const RegistryFile& registry, const std::string& input) {
  const std::string text = registry.Serialize();
  const RegistryFile reread = RegistryFile::Parse(text);
  Check(SameKeys(registry, reread), "the serialised registry reads back otherwise",
        input + " | " + text);
  Check(reread.Serialize() == text, "the serialised registry serialises otherwise", text);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  kro::fuzz::QuietLogger();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string input(kro::fuzz::Text(data, size));
  RegistryFile registry = RegistryFile::Parse(input);
  for (const kro::RegistryKey& key : registry.Keys()) {
    Check(registry.KeyExists(key.name) && registry.FindKey(key.name) == &key,
          "a parsed key is not found by its name");
    for (const kro::RegistryValue& value : key.values) {
      Check(key.Find(value.name) == &value, "a parsed value is not found by its name");
      RegistryFile::DecodeText(value.data);
    }
  }
  CheckRoundTrip(registry, input);

  // A writer re-reads the file, sets one value and writes it all back: the agent's own values,
  // as text and as a number, beside whatever the file held.
  registry.CreateKey(L"SOFTWARE\\Norvane Technologies\\Arbalo")
      .Set(L"AgentPort", kro::RegType::Dword, {0x00, 0x35, 0x00, 0x00});
  registry.CreateKey(L"SOFTWARE\\Norvane Technologies\\Kesta")
      .Set(L"LastHeartBeatTime", kro::RegType::Sz, RegistryFile::EncodeText(L"1700000000"));
  CheckRoundTrip(registry, input);
  return 0;
}
