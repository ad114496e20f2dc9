// The module's exported entry points. Each is exported under a second, older name that leads
// to the same code: on Windows through KroAgent.def, elsewhere through symbol aliases.

#include <filesystem>
#include <new>
#include <string>

#include "agent/InstalledProducts.h"
#include "agent/KroAgent.h"
#include "agent/KroVersion.h"
#include "agent/ModuleState.h"
#include "common/FilePath.h"
#include "common/WinHelper.h"
#include "config/KroConfigurationManager.h"
#include "core/InstallLayout.h"
#include "core/KroStatus.h"
#include "hlp/OpenSSL.h"
#include "logging_support/logging_support.h"

using KroAgent::Module;

extern "C" {

KRO_AGENT_API long InitKroAgent(void) {
  try {
    if (hlp::OpenSSL::Init() != 0) {
      return kro::status::Failure;
    }

    logging_support::check_init();
    std::wstring hostFolder;
    if (kro::GetHostDirectory(hostFolder) != kro::status::Ok) {
      hostFolder.clear();
    }
    const std::filesystem::path logFile =
        kro::ToFilePath(hostFolder + kro::kPathSeparator + L"KroAgent.log");
    logging_support::create_logger_for_product(Module().logger, "KroAgent", logFile);

    std::wstring installDir;
    kro::ReadRegistryString(installDir, kro::kSetupKey, kro::kInstallDirValue);
    // The settings folder is set even without an installation folder: the file is then looked
    // for relative to the working directory, and its absence only leaves the defaults.
    std::string policy;
    kro::WideToUtf8(installDir + kro::kDataFolder + kro::kPathSeparator + kro::kPolicyFolder,
                    policy);
    kro::KroConfigurationManager::Instance().SetDataDirectory(policy);

    std::string install;
    if (!installDir.empty() && kro::WideToUtf8(installDir, install) == kro::status::Ok) {
      KroAgent::InstalledProducts::Instance().SetFolders(
          install, install + kro::kDataFolderA + kro::kPathSeparatorA);
    }
    // A missing or broken "Products.cfg" leaves the table empty; the agent runs all the same.
    KroAgent::InstalledProducts::Instance().ReloadProducts();

    logging_support::set_logger_for_thread(Module().logger);
    KRO_LOG_INFO << "KroAgent " << KroAgent::kVersionText << " loaded, install folder [" << install
                 << "]";
    return kro::status::Ok;
  } catch (...) {
    return kro::status::Failure;
  }
}

KRO_AGENT_API IKroAgent* GetKroAgent(void) {
  try {
    return new (std::nothrow) KroAgent::KroAgent();
  } catch (...) {
    return nullptr;
  }
}

KRO_AGENT_API void ReleaseKroAgent(IKroAgent** agent) {
  if (agent == nullptr) {
    return;
  }
  delete *agent;
  *agent = nullptr;
}

KRO_AGENT_API void DeInitKroAgent(void) {
  hlp::OpenSSL::Deinit();
}

KRO_AGENT_API const char* GetKroAgentVersion(void) {
  return KroAgent::kVersionText;
}

#if !defined(_WIN32)
KRO_AGENT_API long InitKroBase(void) __attribute__((alias("InitKroAgent")));
KRO_AGENT_API IKroAgent* GetKroBase(void) __attribute__((alias("GetKroAgent")));
KRO_AGENT_API void ReleaseKroBase(IKroAgent** agent) __attribute__((alias("ReleaseKroAgent")));
KRO_AGENT_API void DeInitKroBase(void) __attribute__((alias("DeInitKroAgent")));
#endif

}  // extern "C"
