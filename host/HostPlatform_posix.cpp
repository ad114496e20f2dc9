#include <dlfcn.h>
#include <signal.h>
#include <string.h>
#include <unistd.h>

#include "host/HostPlatform.h"

namespace kro::host {

const char* const kModuleFileName = "libKroAgent.so";

std::filesystem::path ExecutableFolder() {
  std::error_code ec;
  const auto self = std::filesystem::read_symlink("/proc/self/exe", ec);
  return ec ? std::filesystem::path() : self.parent_path();
}

void* LoadModule(const std::filesystem::path& file, std::string& error) {
  void* module = dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (module == nullptr) {
    const char* reason = dlerror();
    error = reason != nullptr ? reason : "unknown error";
  }
  return module;
}

void* FindExport(void* module, const char* name) {
  return dlsym(module, name);
}

namespace {
sigset_t StopSignals() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGTERM);
  return set;
}
}  // namespace

void CaptureStopRequests() {
  const sigset_t set = StopSignals();
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

std::string WaitForStopRequest() {
  const sigset_t set = StopSignals();
  int signal = 0;
  while (sigwait(&set, &signal) != 0) {
  }
  return signal == SIGINT ? "SIGINT" : "SIGTERM";
}

}  // namespace kro::host
