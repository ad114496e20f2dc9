#include <dlfcn.h>
#include <signal.h>
#include <string.h>
#include <sys/resource.h>
#include <time.h>
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

unsigned long RaiseOpenFileLimit() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) {
    return 0;
  }
  if (limit.rlim_cur < limit.rlim_max) {
    rlimit raised = limit;
    raised.rlim_cur = limit.rlim_max;
    if (setrlimit(RLIMIT_NOFILE, &raised) == 0) {
      limit = raised;
    }
  }
  return limit.rlim_cur == RLIM_INFINITY ? 0 : static_cast<unsigned long>(limit.rlim_cur);
}

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

std::string LocalTimeText() {
  // Not localtime: its result is one buffer shared by the whole process, and this runs on the
  // agent's request workers.
  const time_t now = time(nullptr);
  struct tm local = {};
  char text[32] = {};
  if (localtime_r(&now, &local) == nullptr ||
      strftime(text, sizeof(text), "%Y-%m-%d %H:%M:%S", &local) == 0) {
    return "unknown time";
  }
  return text;
}

}  // namespace kro::host
