// kroagent: the host that loads the agent module from its own folder and runs the agent until
// it is asked to stop.

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

#include "agent/IKroAgent.h"
#include "core/KroStatus.h"
#include "host/HostPlatform.h"

namespace {

constexpr const char* kUsage =
    "Usage: kroagent [--help] [--version] [--demo]\n"
    "\n"
    "Loads the KroAgent module from the folder of this program and runs the agent: its\n"
    "web server, its reports to the management server and its alerts. The agent logs to\n"
    "KroAgent.log beside this program and stops cleanly on Ctrl+C or SIGTERM.\n"
    "\n"
    "  --help     show this text\n"
    "  --version  print the module's version\n"
    "  --demo     also answer /arbalo/Requests/raiseTestAlert.json, which raises a test\n"
    "             alert (the browser UI's \"Raise test alert\" button)\n";

constexpr const char* kTestAlertRoutine = "/Arbalo/Requests/raiseTestAlert.json";
constexpr const char* kTestAlertName = "KroAgentTestAlert";
constexpr unsigned int kTestAlertCode = 9001;
constexpr const char* kTestAlertOrigin = "Raised from the demo page";

struct Module {
  InitKroAgentFn init = nullptr;
  GetKroAgentFn get = nullptr;
  ReleaseKroAgentFn release = nullptr;
  DeInitKroAgentFn deinit = nullptr;
  GetKroAgentVersionFn version = nullptr;
};

int Fail(const char* step, long status) {
  std::fprintf(stderr, "kroagent: %s failed: 0x%08X\n", step, kro::status::Bits(status));
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

/**
 * @brief Raises one test alert per call, so that an alert can be followed from the page to the
 * management server. Answers {"result":"success"} or {"result":"failed","status":"0x..."}; the
 * status is GenerateAlert's, which tells whether the report carrying the alert was queued.
 */
long RaiseTestAlert(IKroAgent& agent, const char** response, size_t* responseLen) noexcept {
  if (response == nullptr || responseLen == nullptr) {
    return kro::status::NotAvailable;
  }
  try {
    // The time tells one click from the next wherever the alert is shown.
    const std::string raised = kro::host::LocalTimeText();
    const long result =
        agent.GenerateAlert(kTestAlertName, kTestAlertCode, kTestAlertOrigin, raised.c_str());
    char answer[64] = {};
    const int length =
        result == kro::status::Ok
            ? std::snprintf(answer, sizeof(answer), "{\"result\":\"success\"}")
            : std::snprintf(answer, sizeof(answer), "{\"result\":\"failed\",\"status\":\"0x%08X\"}",
                            kro::status::Bits(result));
    if (length <= 0 || static_cast<size_t>(length) >= sizeof(answer)) {
      return kro::status::Failure;
    }
    // The agent frees the answer, so it comes from the agent's heap.
    void* buffer = agent.AllocateResponse(static_cast<size_t>(length) + 1);
    if (buffer == nullptr) {
      return kro::status::OutOfMemory;
    }
    std::memcpy(buffer, answer, static_cast<size_t>(length) + 1);
    *response = static_cast<const char*>(buffer);
    *responseLen = static_cast<size_t>(length);
    return result;
  } catch (...) {
    return kro::status::Failure;
  }
}

/** @brief Adds the demo's routines; before Start, so no request can race the registration. */
long RegisterDemoRoutines(IKroAgent& agent) {
  return agent.RegisterHandler(
      kTestAlertRoutine,
      [&agent](const char* /*request*/, size_t /*requestLen*/, const char** response,
               size_t* responseLen) { return RaiseTestAlert(agent, response, responseLen); });
}

int Run(const Module& module, bool demo) {
  if (const long status = module.init(); status != 0) {
    return Fail("InitKroAgent", status);
  }
  IKroAgent* agent = module.get();
  if (agent == nullptr) {
    module.deinit();
    return Fail("GetKroAgent", kro::status::OutOfMemory);
  }
  if (const long status = agent->Init(); status != 0) {
    module.release(&agent);
    module.deinit();
    return Fail("Init", status);
  }
  if (demo) {
    if (const long status = RegisterDemoRoutines(*agent); status != 0) {
      agent->Exit();
      module.release(&agent);
      module.deinit();
      return Fail("RegisterHandler", status);
    }
  }
  if (const long status = agent->Start(); status != 0) {
    agent->Exit();
    module.release(&agent);
    module.deinit();
    return Fail("Start", status);
  }

  std::fprintf(stderr, "kroagent: KroAgent %s running, agent port %u%s%s; stop with Ctrl+C\n",
               module.version(), static_cast<unsigned>(agent->GetAgentPort()),
               agent->GetAgentSSL() ? " (TLS)" : "", demo ? ", demo routines on" : "");
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
  bool demo = false;
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--help") == 0 || std::strcmp(argv[i], "-h") == 0) {
      std::fputs(kUsage, stdout);
      return 0;
    }
    if (std::strcmp(argv[i], "--version") == 0) {
      wantVersion = true;
      continue;
    }
    if (std::strcmp(argv[i], "--demo") == 0) {
      demo = true;
      continue;
    }
    std::fprintf(stderr, "kroagent: unknown argument '%s'\n\n%s", argv[i], kUsage);
    return 2;
  }

  // Before the module starts any thread, so that every thread inherits it.
  kro::host::CaptureStopRequests();
  // Before the module's server sizes its connection cap from it.
  kro::host::RaiseOpenFileLimit();

  Module module;
  if (!LoadAgentModule(module)) {
    return 1;
  }
  if (wantVersion) {
    std::printf("%s\n", module.version());
    return 0;
  }
  return Run(module, demo);
}
