#include "agent/AlertAgentCallbacks.h"

#include <cstring>
#include <string>

#include "agent/KroAgent.h"
#include "common/WinHelper.h"
#include "core/InstallLayout.h"
#include "dialhome/EndNodeDialHome.h"
#include "dialhome/SystemInventory.h"

namespace KroAgent {
namespace {

// Copies what fits and always terminates, so a short buffer gets a cut but usable string.
void CopyTruncated(const std::string& text, char* buffer, size_t bufferSize) {
  const size_t length = text.size() < bufferSize ? text.size() : bufferSize - 1;
  std::memcpy(buffer, text.data(), length);
  buffer[length] = '\0';
}

}  // namespace

void AlertAgentCallbacks::SendAlertData(const char* payload) {
  if (payload == nullptr) {
    return;
  }
  kro::DialHome* dialHome = dialHome_.load();
  if (dialHome == nullptr) {
    return;
  }
  try {
    dialHome->AddAlert(std::string(payload));
  } catch (...) {
    // Out of memory: the alert is still stored unsent and goes with a later retrieve.
  }
}

int AlertAgentCallbacks::GetAgentFolder(char* buffer, size_t bufferSize) {
  if (buffer == nullptr || bufferSize == 0) {
    return 0;
  }
  try {
    std::wstring install;
    kro::ReadRegistryString(install, kro::kSetupKey, kro::kInstallDirValue);
    std::string folder;
    kro::WideToUtf8(install + kro::kDataFolder, folder);
    CopyTruncated(folder, buffer, bufferSize);
  } catch (...) {
    buffer[0] = '\0';
  }
  return 0;
}

int AlertAgentCallbacks::GetSystemName(char* buffer, unsigned int bufferSize) {
  if (buffer == nullptr || bufferSize == 0) {
    return -1;
  }
  try {
    std::wstring registered;
    // A value of another type than a string reads as missing.
    if (kro::RegistryReadSz(kro::kDialHomeKey, L"SystemName", 4096, registered) != 0) {
      std::string dnsName;
      if (kro::GetComputerNameDns(dnsName) != 0 || dnsName.size() >= bufferSize) {
        return -1;  // as a system call with too small a buffer would fail
      }
      CopyTruncated(dnsName, buffer, bufferSize);
      return 0;
    }
    std::string name;
    kro::WideToUtf8(registered, name);
    if (name.empty()) {
      return -1;
    }
    CopyTruncated(name, buffer, bufferSize);
    return 0;
  } catch (...) {
    return -1;
  }
}

}  // namespace KroAgent
