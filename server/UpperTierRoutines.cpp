#include "server/UpperTierRoutines.h"

#include <cstdio>
#include <cstring>
#include <ctime>
#include <functional>
#include <new>
#include <string>
#include <vector>

#include "common/WinHelper.h"
#include "core/KroStatus.h"
#include "server/JobRecord.h"
#include "server/KroServer.h"
#include "server/UpstreamQueue.h"

namespace kro {
namespace {

constexpr size_t kHeartBeatPageBytes = 512;

long RunningStatus(const KroServer& server) {
  return server.GetState() == kServerRunning ? status::Ok : status::WinNotRunning;
}

// The answer slot of the relay routines carries the caller's text in, as a C string.
const char* SlotText(const char** response) {
  return response != nullptr ? *response : nullptr;
}

void QueueRecord(KroServer& server, const char* name, const char* first, const char* second) {
  std::vector<char> record;
  // Neither a failed allocation nor a full queue is reported to the caller.
  if (BuildJobRecord(name, first, second, record) == status::Ok) {
    server.PutUpstream(record);
  }
}

}  // namespace

long CheckHeartBeat(KroServer& server, const char* request, size_t requestLength,
                    const char** response, size_t* responseLength) {
  if (response == nullptr || responseLength == nullptr) {
    return status::Ok;
  }
  try {
    KroAgent::RoutineTable* routines = server.Routines();
    std::function<RoutineFn> update;
    if (routines != nullptr && routines->Find("UpdateCommunicationTime", update)) {
      const char* before = *response;
      update(request, requestLength, response, responseLength);
      // Whatever it answered is replaced below; it was allocated for us, so it is ours to free.
      if (*response != before) {
        delete[] * response;
      }
    } else {
      const std::wstring now = std::to_wstring(static_cast<int64_t>(std::time(nullptr)));
      // Open only: where the key does not exist, the heartbeat is not recorded.
      RegistryWriteSz(kDefaultRegistryKey, kLastHeartBeatValue, now, false);
      std::function<RoutineFn> received;
      if (routines != nullptr && routines->Find("HeartBeatReceived", received)) {
        received(nullptr, 0, nullptr, nullptr);
      }
    }
  } catch (...) {
    // The page below still tells the upper tier whether the server runs.
  }

  char* page = new (std::nothrow) char[kHeartBeatPageBytes];
  if (page == nullptr) {
    return status::WinOutOfMemory;
  }
  std::string ports;
  try {
    ports = server.ListeningPorts();
  } catch (...) {
  }
  const int written = std::snprintf(page, kHeartBeatPageBytes,
                                    "<html><body>Server Thread [%s] Port[%s]</body></html>\n",
                                    server.ThreadName(), ports.c_str());
  *response = page;
  *responseLength = written < 0 ? 0
                    : static_cast<size_t>(written) >= kHeartBeatPageBytes
                        ? kHeartBeatPageBytes - 1
                        : static_cast<size_t>(written);
  return RunningStatus(server);
}

long Authentication(KroServer& server, const char* /*request*/, size_t /*requestLength*/,
                    const char** response, size_t* responseLength) {
  if (response == nullptr || responseLength == nullptr) {
    return status::WinInvalidParameter;
  }
  try {
    const std::string identity = server.ComponentName() + "/" + kProtocolVersion;
    char* answer = new (std::nothrow) char[identity.size() + 1];
    if (answer == nullptr) {
      return status::WinOutOfMemory;
    }
    std::memcpy(answer, identity.c_str(), identity.size() + 1);
    *response = answer;
    *responseLength = identity.size();
    return status::Ok;
  } catch (...) {
    return status::WinOutOfMemory;
  }
}

long AddResponseToSendUpperTier(KroServer& server, const char* request, size_t /*requestLength*/,
                                const char** response, size_t* /*responseLength*/) {
  if (server.GetState() != kServerRunning) {
    return status::WinNotRunning;
  }
  try {
    QueueRecord(server, request, nullptr, SlotText(response));
  } catch (...) {
  }
  return status::Ok;
}

long AddJobResponseToSendUpperTier(KroServer& server, const char* request, size_t requestLength,
                                   const char** response, size_t* /*responseLength*/) {
  if (server.GetState() != kServerRunning) {
    return status::WinNotRunning;
  }
  try {
    // The identifier need not be zero-terminated when its length is given.
    std::string identifier;
    if (request != nullptr) {
      identifier = requestLength != 0 ? std::string(request, strnlen(request, requestLength))
                                      : std::string(request);
    }
    QueueRecord(server, kProcessJobDone, SlotText(response),
                request != nullptr ? identifier.c_str() : nullptr);
  } catch (...) {
  }
  return status::Ok;
}

}  // namespace kro
