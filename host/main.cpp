// kroagent: the host that loads the agent module from its own folder and runs the agent until
// it is asked to stop.

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

#include "agent/IKroAgent.h"
#include "host/HostPlatform.h"

namespace {

constexpr long kOutOfMemory = static_cast<int32_t>(0x80000030u);

constexpr const char* kUsage =
    "Usage: kroagent [--help] [--version]\n"
    "\n"
    "Loads the KroAgent module from the folder of this program and runs the agent: its\n"
    "web server, its reports to the management server and its alerts. The agent logs to\n"
    "KroAgent.log beside this program and stops cleanly on Ctrl+C or SIGTERM.\n"
    "\n"
    "  --help     show this text\n"
    "  --version  print the module's version\n";

struct Module {
  InitKroAgentFn init = nullptr;
  GetKroAgentFn get = nullptr;
  ReleaseKroAgentFn release = nullptr;
  DeInitKroAgentFn deinit = nullptr;
  GetKroAgentVersionFn version = nullptr;
};

int Fail(const char* step, long status) {
  std::fprintf(stderr, "kroagent: %s failed: 0x%08X\n", step, static_cast<uint32_t>(status));
  return 1;
}

template <typename Fn>
bool Resolve(void* handle, const char* name, Fn& fn) {
  fn = reinterpret_cast<Fn>(kro::host::FindExport(handle, name));
  if (fn == nullptr) {
    std::fprintf(stderr, "kroagent: the module has no entry point %s\n", name);
  }
  return fn != nullptr;
}

bool LoadAgentModule(Module& module) {
  const auto file = kro::host::ExecutableFolder() / kro::host::kModuleFileName;
  std::string error;
  void* handle = kro::host::LoadModule(file, error);
  if (handle == nullptr) {
    std::fprintf(stderr, "kroagent: cannot load %s: %s\n", file.string().c_str(), error.c_str());
    return false;
  }
  // The module stays loaded until the process ends: threads it started may still be unwinding.
  return Resolve(handle, "InitKroAgent", module.init) &&
         Resolve(handle, "GetKroAgent", module.get) &&
         Resolve(handle, "ReleaseKroAgent", module.release) &&
         Resolve(handle, "DeInitKroAgent", module.deinit) &&
         Resolve(handle, "GetKroAgentVersion", module.version);
}

int Run(const Module& module) {
  if (const long status = module.init(); status != 0) {
    return Fail("InitKroAgent", status);
  }
  IKroAgent* agent = module.get();
  if (agent == nullptr) {
    module.deinit();
    return Fail("GetKroAgent", kOutOfMemory);
  }
  if (const long status = agent->Init(); status != 0) {
    module.release(&agent);
    module.deinit();
    return Fail("Init", status);
  }
  if (const long status = agent->Start(); status != 0) {
    agent->Exit();
    module.release(&agent);
    module.deinit();
    return Fail("Start", status);
  }

  std::fprintf(stderr, "kroagent: KroAgent %s running, agent port %u%s; stop with Ctrl+C\n",
               module.version(), static_cast<unsigned>(agent->GetAgentPort()),
               agent->GetAgentSSL() ? " (TLS)" : "");
  const std::string request = kro::host::WaitForStopRequest();
  std::fprintf(stderr, "kroagent: %s received, stopping\n", request.c_str());

  agent->Exit();
  module.release(&agent);
  module.deinit();
  std::fprintf(stderr, "kroagent: stopped\n");
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  bool wantVersion = false;
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--help") == 0 || std::strcmp(argv[i], "-h") == 0) {
      std::fputs(kUsage, stdout);
      return 0;
    }
    if (std::strcmp(argv[i], "--version") == 0) {
      wantVersion = true;
      continue;
    }
    std::fprintf(stderr, "kroagent: unknown argument '%s'\n\n%s", argv[i], kUsage);
    return 2;
  }

  // Before the module starts any thread, so that every thread inherits it.
  kro::host::CaptureStopRequests();

  Module module;
  if (!LoadAgentModule(module)) {
    return 1;
  }
  if (wantVersion) {
    std::printf("%s\n", module.version());
    return 0;
  }
  return Run(module);
}
