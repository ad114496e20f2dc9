#include "alerts/AlertsManager.h"

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <new>
#include <random>
#include <vector>

#include "alerts/AlertPayload.h"
#include "alerts/AlertStore.h"
#include "core/KroStatus.h"
#include "core/RoutineTable.h"
#include "hlp/Json.h"
#include "logging_support/logging_support.h"

namespace KroAlerts {

namespace fs = std::filesystem;
namespace status = kro::status;

/**
 * @brief The manager's state, shared with the routine it registers.
 *
 * The routine stays in the agent's map after `cleanup`; it holds only a weak reference, so a
 * request arriving late finds the state gone and answers NotAvailable instead of touching
 * freed memory.
 */
class AlertsCore {
 public:
  AlertsAgentInterface* callbacks = nullptr;
  fs::path folder;
  // Guards everything below. Never held while calling into the agent: its callbacks take the
  // dial-home queue's lock and may call back into the manager.
  std::mutex lock;
  AlertStore store;
  std::function<int64_t()> clock;
  std::mt19937_64 random;
};

namespace {

constexpr int64_t kSecondsPerDay = 86400;
// Beyond this a purge limit means "keep everything"; it also keeps days * 86400 in range.
constexpr int64_t kMaxPurgeDays = int64_t{1} << 32;
constexpr size_t kFolderBufferSize = 4096;
// What the UI page shows; a request may ask for another count up to the maximum, which keeps
// one answer to a few hundred KiB however many alerts the store keeps.
constexpr int64_t kAlertsAnsweredByDefault = 50;
constexpr int64_t kMaxAlertsAnswered = 1000;

int64_t SystemNow() {
  return std::chrono::duration_cast<std::chrono::seconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

/** @brief Runs `body`, turning any exception into a status: none may reach the agent. */
template <typename Body>
long Guarded(Body&& body) noexcept {
  try {
    return body();
  } catch (const std::bad_alloc&) {
    return status::OutOfMemory;
  } catch (...) {
    return status::Failure;
  }
}

fs::path FromUtf8(const char* text) {
  return fs::path(std::u8string(reinterpret_cast<const char8_t*>(text)));
}

/**
 * @brief Reads a code as the agent prints it: "%d" makes codes above 2^31 negative, so both
 * signed and unsigned decimal name the same 32-bit code.
 */
bool ParseCode(const char* text, uint32_t& code) {
  char* end = nullptr;
  const long long value = std::strtoll(text, &end, 10);
  if (end == text || *end != '\0' || value < INT32_MIN || value > UINT32_MAX) {
    return false;
  }
  code = static_cast<uint32_t>(value);
  return true;
}

std::string NewId(AlertsCore& core) {
  // 128 random bits in hex: unique across restarts and across a database that was replaced,
  // where a sequence would start again and confuse the management server.
  static constexpr char kHex[] = "0123456789abcdef";
  std::string id;
  for (int half = 0; half < 2; ++half) {
    uint64_t bits = core.random();
    for (int i = 0; i < 16; ++i, bits >>= 4) {
      id.push_back(kHex[bits & 0xF]);
    }
  }
  return id;
}

void Randomize(std::mt19937_64& random) {
  std::seed_seq entropy{
      static_cast<uint64_t>(SystemNow()),
      static_cast<uint64_t>(std::chrono::steady_clock::now().time_since_epoch().count()),
      static_cast<uint64_t>(reinterpret_cast<uintptr_t>(&random))};
  random = std::mt19937_64(entropy);
  try {
    // Old MinGW runtimes give a fixed sequence here, hence the clock and address mixed in.
    std::random_device device;
    random.discard(device() & 0xFF);
    random = std::mt19937_64(random() ^ ((static_cast<uint64_t>(device()) << 32) | device()));
  } catch (...) {
    // No entropy source: the clock and the address stand alone.
  }
}

void Send(const AlertsCore& core, const std::vector<std::string>& payloads) {
  if (core.callbacks == nullptr) {
    return;
  }
  for (const std::string& payload : payloads) {
    core.callbacks->SendAlertData(payload.c_str());
  }
}

/**
 * @brief How many alerts a "getAlerts.json" request asks for: its member "count", a whole
 * number from 0 to kMaxAlertsAnswered (more is cut to that), or the default without a request
 * or without the member. False, with `why` for the caller, for anything else.
 */
bool RequestedCount(std::string_view request, int64_t& count, std::string& why) {
  count = kAlertsAnsweredByDefault;
  // A terminator a caller counted, or trailing blanks, are not part of the request.
  while (!request.empty() && (request.back() == '\0' ||
                              std::isspace(static_cast<unsigned char>(request.back())) != 0)) {
    request.remove_suffix(1);
  }
  if (request.empty()) {
    return true;
  }
  const std::unique_ptr<hlp::JsonValue> root = hlp::JsonParser().Parse(request);
  if (root == nullptr || !root->IsObject()) {
    why = "the request is not a JSON object";
    return false;
  }
  const hlp::JsonValue* member = root->FindMember("count");
  if (member == nullptr) {
    return true;
  }
  if (!member->IsInteger() || member->GetInt64() < 0) {
    why = "\"count\" must be a whole number from 0 to " + std::to_string(kMaxAlertsAnswered);
    return false;
  }
  count = static_cast<int64_t>(std::min<uint64_t>(member->GetUint64(), kMaxAlertsAnswered));
  return true;
}

/**
 * @brief The "/Arbalo/Requests/getAlerts.json" routine: {"alerts":[...],"total":N,"unsent":M},
 * the newest alerts first (as many as RequestedCount says), the number stored and how many of
 * them the management server has not had. A bad request is answered {"error":"..."} with
 * MalformedData.
 */
struct GetAlertsRoutine {
  std::weak_ptr<AlertsCore> core;

  long operator()(const char* request, size_t requestLen, const char** response,
                  size_t* responseLen) const noexcept {
    return Guarded([&]() -> long {
      if (response == nullptr || responseLen == nullptr) {
        return status::NotAvailable;
      }
      *response = nullptr;
      *responseLen = 0;
      int64_t count = 0;
      std::string why;
      if (!RequestedCount(std::string_view(request != nullptr ? request : "",
                                           request != nullptr ? requestLen : 0),
                          count, why)) {
        std::ostringstream out;
        hlp::JsonWriter writer(out);
        writer.Object();
        writer.Name("error");
        writer.String(why);
        writer.EndObject();
        const long handed = KroAgent::HandOverAnswer(out.str(), response, responseLen);
        return handed != status::Ok ? handed : status::MalformedData;
      }
      const std::shared_ptr<AlertsCore> state = core.lock();
      if (state == nullptr) {
        return status::NotAvailable;
      }
      std::vector<AlertRecord> records;
      long total = 0;
      long unsent = 0;
      {
        // One lock for all three, so the counts are of the alerts the list was taken from.
        std::lock_guard<std::mutex> guard(state->lock);
        total = state->store.Count(false);
        unsent = total < 0 ? total : state->store.Count(true);
        if (unsent < 0) {
          return unsent;
        }
        AlertQuery query;
        query.newestFirst = true;
        query.limit = count;
        if (const long result = count > 0 ? state->store.Select(query, records) : 0; result < 0) {
          return result;
        }
      }
      return KroAgent::HandOverAnswer("{\"alerts\":" + AlertArrayJson(records) +
                                          ",\"total\":" + std::to_string(total) +
                                          ",\"unsent\":" + std::to_string(unsent) + "}",
                                      response, responseLen);
    });
  }
};

}  // namespace

AlertsManager::AlertsManager() : core_(std::make_shared<AlertsCore>()) {
  core_->clock = SystemNow;
  Randomize(core_->random);
}

AlertsManager::~AlertsManager() = default;

AlertsManager* AlertsManager::initialize(
    AlertsAgentInterface* callbacks, const char** folders,
    std::map<std::string, std::function<RoutineFn>, kro::case_insensitive_less>& routines) {
  AlertsManager* manager = nullptr;
  const long result = Guarded([&]() -> long {
    manager = new (std::nothrow) AlertsManager();
    if (manager == nullptr) {
      return status::OutOfMemory;
    }
    const std::shared_ptr<AlertsCore>& core = manager->core_;
    core->callbacks = callbacks;
    if (folders != nullptr && folders[0] != nullptr && folders[0][0] != '\0') {
      core->folder = FromUtf8(folders[0]);
    } else if (callbacks != nullptr) {
      char buffer[kFolderBufferSize] = {};
      if (callbacks->GetAgentFolder(buffer, sizeof(buffer)) == 0) {
        buffer[sizeof(buffer) - 1] = '\0';
        core->folder = FromUtf8(buffer);
      }
    }
    core->store.Open(core->folder);

    // A routine left by an earlier manager of this process is dead; the new one takes over.
    // Anyone else's routine of that name stays.
    const auto existing = routines.find(std::string_view(kGetAlertsRoutine));
    if (existing == routines.end()) {
      routines.emplace(kGetAlertsRoutine, GetAlertsRoutine{core});
    } else if (const auto* ours = existing->second.target<GetAlertsRoutine>();
               ours != nullptr && ours->core.expired()) {
      existing->second = GetAlertsRoutine{core};
    }
    return status::Ok;
  });
  if (result != status::Ok) {
    KRO_LOG_ERROR << "Alerts manager could not be created, status " << result;
    delete manager;
    return nullptr;
  }
  return manager;
}

void AlertsManager::cleanup(AlertsManager* manager) {
  if (manager == nullptr) {
    return;
  }
  Guarded([&]() -> long {
    {
      // Closed here, not when the last reference goes: a routine call in flight may still hold
      // the state, and the file must be released when the agent lets go of the manager.
      std::lock_guard<std::mutex> guard(manager->core_->lock);
      manager->core_->store.Close();
    }
    delete manager;
    return status::Ok;
  });
}

long AlertsManager::markAlertAsSent(const std::string& id) {
  return Guarded([&]() -> long {
    std::lock_guard<std::mutex> guard(core_->lock);
    return core_->store.MarkSent(id);
  });
}

void AlertsManager::setClock(std::function<int64_t()> nowSeconds) {
  Guarded([&]() -> long {
    std::lock_guard<std::mutex> guard(core_->lock);
    core_->clock = nowSeconds ? std::move(nowSeconds) : std::function<int64_t()>(SystemNow);
    return status::Ok;
  });
}

long AlertsManager::start(int flags) {
  return Guarded([&]() -> long {
    {
      std::lock_guard<std::mutex> guard(core_->lock);
      if (!core_->store.IsOpen()) {
        core_->store.Open(core_->folder);
      }
      if (!core_->store.IsOpen()) {
        return status::NotAvailable;
      }
    }
    if ((flags & kStartSendUnsent) != 0) {
      const long handed = retrieveAlerts(nullptr, 0, 0, 0);
      return handed < 0 ? handed : status::Ok;
    }
    return status::Ok;
  });
}

long AlertsManager::addAlert(const Alert& alert) {
  return Guarded([&]() -> long {
    if (alert.getName().empty()) {
      return status::NotAvailable;
    }
    AlertRecord record;
    record.type = alert.getName();
    record.code = alert.getCode();
    record.severity = alert.getSeverity();
    record.parameters = alert.getParameters();
    long result = status::Ok;
    {
      std::lock_guard<std::mutex> guard(core_->lock);
      record.id = NewId(*core_);
      record.raised = record.updated = core_->clock();
      if (alert.isPersistent()) {
        result = core_->store.Insert(record);
      }
    }
    // Even an alert that could not be stored is worth delivering once.
    Send(*core_, {AlertJson(record, false)});
    return result;
  });
}

long AlertsManager::updateAlert(const Alert& alert, DataSchema schema) {
  return Guarded([&]() -> long {
    std::vector<AlertRecord> changed;
    {
      std::lock_guard<std::mutex> guard(core_->lock);
      const long result =
          core_->store.SetSchema(alert.getName(), alert.getCode(), schema, core_->clock(), changed);
      if (result < 0) {
        return result;
      }
    }
    if (changed.empty()) {
      return status::NotFound;
    }
    std::vector<std::string> payloads;
    for (const AlertRecord& record : changed) {
      payloads.push_back(AlertJson(record, false));
    }
    Send(*core_, payloads);
    return static_cast<long>(changed.size());
  });
}

long AlertsManager::getAlertCount(int unsentOnly) {
  return Guarded([&]() -> long {
    std::lock_guard<std::mutex> guard(core_->lock);
    return core_->store.Count(unsentOnly != 0);
  });
}

long AlertsManager::removeAlerts(const char* typeText, DataSchema schema, const char* codeText) {
  return Guarded([&]() -> long {
    if (typeText == nullptr || typeText[0] == '\0') {
      return status::NotAvailable;
    }
    std::optional<uint32_t> code;
    if (codeText != nullptr && codeText[0] != '\0') {
      uint32_t value = 0;
      if (!ParseCode(codeText, value)) {
        return status::MalformedData;
      }
      code = value;
    }
    std::lock_guard<std::mutex> guard(core_->lock);
    return core_->store.Remove(typeText, schema, code);
  });
}

long AlertsManager::getAlert(const char* id, std::string& json) {
  return Guarded([&]() -> long {
    json.clear();
    if (id == nullptr) {
      return status::NotAvailable;
    }
    std::vector<AlertRecord> records;
    {
      AlertQuery query;
      query.id = id;
      std::lock_guard<std::mutex> guard(core_->lock);
      if (const long result = core_->store.Select(query, records); result < 0) {
        return result;
      }
    }
    if (records.empty()) {
      return status::NotFound;
    }
    json = AlertJson(records.front(), true);
    return status::Ok;
  });
}

long AlertsManager::listAlerts(std::string& json, int unsentOnly) {
  return Guarded([&]() -> long {
    json.clear();
    std::vector<AlertRecord> records;
    {
      AlertQuery query;
      query.unsentOnly = unsentOnly != 0;
      query.newestFirst = true;
      std::lock_guard<std::mutex> guard(core_->lock);
      if (const long result = core_->store.Select(query, records); result < 0) {
        return result;
      }
    }
    json = AlertArrayJson(records);
    return static_cast<long>(records.size());
  });
}

long AlertsManager::retrieveAlerts(const char* jsonRequest, int maxAlerts, int /*reserved1*/,
                                   int /*reserved2*/) {
  return Guarded([&]() -> long {
    bool getAll = false;
    if (jsonRequest != nullptr && jsonRequest[0] != '\0') {
      const std::unique_ptr<hlp::JsonValue> request = hlp::JsonParser().Parse(jsonRequest);
      if (request == nullptr || !request->IsObject()) {
        return status::MalformedData;
      }
      if (const hlp::JsonValue* all = request->FindMember("getAll"); all != nullptr) {
        if (!all->IsBool()) {
          return status::MalformedData;
        }
        getAll = all->GetBool();
      }
    }
    std::vector<AlertRecord> records;
    {
      AlertQuery query;
      query.unsentOnly = !getAll;
      query.limit = maxAlerts > 0 ? maxAlerts : 0;
      std::lock_guard<std::mutex> guard(core_->lock);
      if (const long result = core_->store.Select(query, records); result < 0) {
        return result;
      }
    }
    std::vector<std::string> payloads;
    for (const AlertRecord& record : records) {
      payloads.push_back(AlertJson(record, false));
    }
    Send(*core_, payloads);
    return static_cast<long>(payloads.size());
  });
}

long AlertsManager::removeAlert(const char* id) {
  return Guarded([&]() -> long {
    if (id == nullptr) {
      return status::NotAvailable;
    }
    std::lock_guard<std::mutex> guard(core_->lock);
    return core_->store.RemoveById(id);
  });
}

long AlertsManager::removeAllAlerts() {
  return Guarded([&]() -> long {
    std::lock_guard<std::mutex> guard(core_->lock);
    return core_->store.RemoveAll();
  });
}

long AlertsManager::checkpoint() {
  return Guarded([&]() -> long {
    std::lock_guard<std::mutex> guard(core_->lock);
    return core_->store.Checkpoint();
  });
}

long AlertsManager::stop() {
  return Guarded([&]() -> long {
    std::lock_guard<std::mutex> guard(core_->lock);
    core_->store.Close();
    return status::Ok;
  });
}

long AlertsManager::purgeAlerts(int64_t olderThanDays, int flags) {
  return Guarded([&]() -> long {
    if (olderThanDays < 0) {
      return status::NotAvailable;
    }
    if (olderThanDays > kMaxPurgeDays) {
      return 0;
    }
    std::lock_guard<std::mutex> guard(core_->lock);
    const int64_t cutoff = core_->clock() - olderThanDays * kSecondsPerDay;
    return core_->store.Purge(cutoff, (flags & kPurgeKeepUnsent) != 0);
  });
}

}  // namespace KroAlerts
