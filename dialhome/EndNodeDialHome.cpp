#include "dialhome/EndNodeDialHome.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <limits>
#include <new>
#include <sstream>
#include <string_view>

#include "common/FilePath.h"
#include "common/WinHelper.h"
#include "config/KroAgentConfiguration.h"
#include "config/KroConfigurationManager.h"
#include "core/KroStatus.h"
#include "dialhome/DialHomeFrame.h"
#include "dialhome/SystemInventory.h"
#include "hlp/HttpClient.h"
#include "hlp/HttpRequest.h"
#include "hlp/HttpStatus.h"
#include "hlp/Json.h"
#include "nvthreads/nvthreads.h"

namespace kro {

namespace {

constexpr const char* kDialHomePath = "/KRO/Server/DialHome";
constexpr const char* kUserAgent = "KroAgent/1.2";
constexpr uint32_t kStartupDelayMs = 30000;
constexpr uint64_t kMinuteMs = 60000;
// The alerts of one report take at most this much of its message buffer; the inventory needs
// a few KiB. A longer queue goes in several reports, one right after the other.
constexpr size_t kAlertBudget = kMessageBufferSize / 2;

uint32_t ClampMs(uint64_t ms) {
  return static_cast<uint32_t>(std::min<uint64_t>(ms, std::numeric_limits<uint32_t>::max()));
}

/** @brief "0x80000110", as statuses are printed everywhere in the agent's log. */
std::string StatusText(long status) {
  std::ostringstream text;
  text << "0x" << std::hex << status::Bits(status);
  return text.str();
}

/** @brief Signed decimal with optional leading blanks and sign, as the C library reads it. */
bool ParseSignedDecimal(std::string_view text, int64_t& value) {
  size_t pos = 0;
  while (pos < text.size() && (text[pos] == ' ' || text[pos] == '\t')) {
    ++pos;
  }
  if (pos < text.size() && text[pos] == '+') {
    ++pos;
    if (pos < text.size() && text[pos] == '-') {
      return false;
    }
  }
  const auto [end, error] = std::from_chars(text.data() + pos, text.data() + text.size(), value);
  return error == std::errc() && end != text.data() + pos;
}

/**
 * @brief The home server as the settings file says now: it may have been rewritten since the
 * client was started. The port and the TLS flag count only alongside a readable name, and
 * only "Y" means TLS here: the server writes exactly that.
 */
void RereadHomeServer(DialHomeInfo& settings) {
  std::string value;
  if (GetDialHomeInfoValue("HomeName", value) != status::Ok) {
    return;
  }
  settings.homeName = value;
  int64_t port = 0;
  if (GetDialHomeInfoValue("HomePort", value) == status::Ok && ParseSignedDecimal(value, port)) {
    settings.homePort = static_cast<uint16_t>(port);
  }
  if (GetDialHomeInfoValue("HomeSSL", value) == status::Ok) {
    settings.homeSSL = value == "Y";
  }
}

}  // namespace

uint32_t NextRetryDelay(uint32_t current, const DialHomeSchedule& schedule) {
  uint32_t next = 0;
  if (current < schedule.firstRetry) {
    next = schedule.firstRetry;
  } else if (current < schedule.secondRetry) {
    next = schedule.secondRetry;
  } else if (current < schedule.thirdRetry) {
    next = schedule.thirdRetry;
  }
  // The periodic report comes first anyway.
  return next < schedule.interval ? next : 0;
}

/** @brief Everything one report needs, made afresh for each. */
struct DialHome::Exchange {
  DialHomeInfo settings;
  DialHomeWaits waits;
  std::filesystem::path trustFile;
  hlp::HttpClient client;
  SystemInventory inventory;
  std::mutex bufferMutex;  // guards buffer
  MessageBuffer buffer;
  std::string payload;
  std::string reply;
};

/** @brief The context of one queued "request" item: whether it ran, for its clean-up. */
struct DialHome::QueuedRequest {
  DialHome* self = nullptr;
  bool ran = false;
};

DialHome::DialHome() = default;

DialHome::~DialHome() {
  // Normally the agent has shut the pool down already; a pool left behind would run items
  // against a destroyed object.
  if (created_) {
    nvthreads_pool_cleanup(kPool);
  }
}

long DialHome::Create() {
  try {
    KroAgentConfiguration* config = KroConfigurationManager::Instance().GetAgentConfiguration();
    if (config == nullptr) {
      return status::OutOfMemory;
    }
    schedule_.interval = config->DialHomeInterval();
    schedule_.firstRetry = config->DialHomeFirstRetry();
    schedule_.secondRetry = config->DialHomeSecondRetry();
    schedule_.thirdRetry = config->DialHomeThirdRetry();
    connRetryTimeoutSec_ = config->ConnRetryTimeout();
    connRetryIntervalSec_ = config->ConnRetryInterval();
    {
      std::lock_guard<std::mutex> lock(settingsMutex_);
      if (!waitsOverridden_) {
        waits_.connectBudgetMs = ClampMs(uint64_t{connRetryTimeoutSec_} * 1000);
        waits_.connectIntervalMs = ClampMs(uint64_t{connRetryIntervalSec_} * 1000);
      }
      settings_.Reset();
    }

    if (const uint32_t st = nvthreads_pool_init(kPool); st != NVTHREADS_OK) {
      KRO_LOG_ERROR << "Error initializing pool [" << kPool << "] Status 0x" << std::hex << st;
      return status::Code(st);
    }
    if (const uint32_t st = nvthreads_thread_create(kPool, kThread, ThreadInit, nullptr, 0, this);
        st != NVTHREADS_OK) {
      KRO_LOG_ERROR << "Error creating thread [" << kThread << "] Status 0x" << std::hex << st;
      nvthreads_pool_cleanup(kPool);
      return status::Code(st);
    }
    created_ = true;
    return status::Ok;
  } catch (...) {
    return status::OutOfMemory;
  }
}

void DialHome::SetLogger(logging_support::logger_type* logger) {
  logger_.store(logger);
}

long DialHome::ThreadInit(void* dialHome) {
  auto* self = static_cast<DialHome*>(dialHome);
  if (logging_support::logger_type* logger = self->logger_.load(); logger != nullptr) {
    logging_support::set_logger_for_thread(*logger);
  }
  return status::Ok;
}

long DialHome::Start(const DialHomeInfo& settings) {
  try {
    {
      std::lock_guard<std::mutex> lock(settingsMutex_);
      settings_ = settings;
    }
    uint32_t st = nvthreads_workitem_add(kPool, kThread, kStartupItem, 1, kStartupDelayMs, 0,
                                         nullptr, nullptr, StartupEntry, this);
    if (st != NVTHREADS_OK) {
      KRO_LOG_ERROR << "Error adding workitem [" << kStartupItem << "] Status 0x" << std::hex << st;
      return status::Code(st);
    }
    // Half an interval after start, so that machines started together spread their reports.
    const uint32_t firstMs = ClampMs((schedule_.interval / 2) * kMinuteMs + kStartupDelayMs);
    const uint32_t periodMs = ClampMs(schedule_.interval * kMinuteMs);
    st = nvthreads_workitem_add(kPool, kThread, kPeriodicItem, 1, firstMs, periodMs, nullptr,
                                nullptr, PeriodicEntry, this);
    if (st != NVTHREADS_OK) {
      KRO_LOG_ERROR << "Error adding workitem [" << kPeriodicItem << "] Status 0x" << std::hex
                    << st;
      return status::Code(st);
    }
    KRO_LOG_INFO << "Dial home scheduled: first in " << kStartupDelayMs << " ms, periodic every "
                 << schedule_.interval << " min";
    return status::Ok;
  } catch (...) {
    return status::OutOfMemory;
  }
}

void DialHome::Stop() {
  for (const char* item : {kRetryItem, kRequestItem, kPeriodicItem, kStartupItem}) {
    nvthreads_workitem_cancel(kPool, kThread, item);
  }
}

long DialHome::RequestDialHome() {
  if (!alerts_.ClaimRequest()) {
    return status::Ok;  // the queued one has not taken its snapshot yet
  }
  auto* queued = new (std::nothrow) QueuedRequest{this, false};
  if (queued == nullptr) {
    alerts_.EndRequest();
    return status::OutOfMemory;
  }
  const uint32_t st = nvthreads_workitem_add(kPool, kThread, kRequestItem, 1, 0, 0, nullptr,
                                             QueuedRequestDone, QueuedRequestEntry, queued);
  if (st != NVTHREADS_OK) {
    delete queued;
    alerts_.EndRequest();
    return status::Code(st);
  }
  return status::Ok;
}

long DialHome::QueuedRequestEntry(void* context) {
  auto* queued = static_cast<QueuedRequest*>(context);
  queued->ran = true;
  // Before the snapshot: an alert from now on may miss it and must queue a report of its own.
  queued->self->alerts_.EndRequest();
  return queued->self->OnWorkItem(request);
}

long DialHome::QueuedRequestDone(void* context) {
  auto* queued = static_cast<QueuedRequest*>(context);
  // Cancelled, or dropped by a shut-down: the next alert must be able to queue a report.
  if (!queued->ran) {
    queued->self->alerts_.EndRequest();
  }
  delete queued;
  return status::Ok;
}

long DialHome::StartupEntry(void* dialHome) {
  return static_cast<DialHome*>(dialHome)->OnWorkItem(startup);
}

long DialHome::PeriodicEntry(void* dialHome) {
  return static_cast<DialHome*>(dialHome)->OnWorkItem(periodic);
}

long DialHome::RetryEntry(void* dialHome) {
  return static_cast<DialHome*>(dialHome)->OnWorkItem(startup);
}

long DialHome::RequestEntry(void* dialHome) {
  return static_cast<DialHome*>(dialHome)->OnWorkItem(request);
}

long DialHome::OnWorkItem(DialHomeType type) {
  try {
    // A logger set after the thread started still reaches it.
    if (logging_support::logger_type* logger = logger_.load(); logger != nullptr) {
      logging_support::set_logger_for_thread(*logger);
    }
    std::lock_guard<std::mutex> lock(runMutex_);
    // This report supersedes a pending retry; a failure schedules its own.
    nvthreads_workitem_cancel(kPool, kThread, kRetryItem);
    const long result = RunLocked(type);
    if (result == status::Ok) {
      retryDelay_.store(0);
      return result;
    }
    const uint32_t next = NextRetryDelay(retryDelay_.load(), schedule_);
    retryDelay_.store(next);
    if (next != 0) {
      const uint32_t st =
          nvthreads_workitem_add(kPool, kThread, kRetryItem, 1, ClampMs(next * kMinuteMs), 0,
                                 nullptr, nullptr, RetryEntry, this);
      if (st != NVTHREADS_OK) {
        KRO_LOG_ERROR << "Error adding workitem [" << kRetryItem << "] Status 0x" << std::hex << st;
      } else {
        KRO_LOG_INFO << "Dial home retry in " << next << " min";
      }
    }
    return result;
  } catch (...) {
    return status::Failure;
  }
}

long DialHome::Run(DialHomeType type) {
  try {
    std::lock_guard<std::mutex> lock(runMutex_);
    return RunLocked(type);
  } catch (...) {
    return status::Failure;
  }
}

long DialHome::RunLocked(DialHomeType type) {
  try {
    auto exchange = std::make_unique<Exchange>();
    {
      std::lock_guard<std::mutex> lock(settingsMutex_);
      exchange->settings = settings_;
      exchange->waits = waits_;
    }
    RereadHomeServer(exchange->settings);
    if (exchange->settings.homeName.empty()) {
      // Not enrolled yet: nothing to report to, and nothing to retry.
      return status::Ok;
    }
    exchange->trustFile = TrustFile();
    try {
      exchange->buffer.bytes.assign(kMessageBufferSize, '\0');
    } catch (const std::bad_alloc&) {
      return status::OutOfMemory;
    }

    const std::vector<AlertText> snapshot = alerts_.Snapshot();
    AlertBatch batch;
    const long result = Main(*exchange, type, snapshot, batch);
    if (result != status::Ok) {
      return result;
    }
    // Alerts queued while the report was under way were not in it and stay.
    alerts_.DropFront(batch.taken);
    ReportDelivered(batch.carried);
    if (batch.taken < snapshot.size()) {
      // The rest did not fit into this report; it need not wait for the next alert.
      RequestDialHome();
    }
    return status::Ok;
  } catch (const std::bad_alloc&) {
    return status::OutOfMemory;
  } catch (...) {
    return status::Failure;
  }
}

long DialHome::Main(Exchange& exchange, DialHomeType type, const std::vector<AlertText>& alerts,
                    AlertBatch& batch) {
  KRO_LOG_INFO << "Dialing home as type " << static_cast<int>(type);
  long result = BuildPayload(exchange, type, alerts, batch);
  if (result == status::Ok) {
    std::string record;
    result = BuildRequestRecord(exchange.payload, record);
    if (result == status::Ok) {
      std::lock_guard<std::mutex> lock(exchange.bufferMutex);
      result = AppendRecord(exchange.buffer, record);
    }
  }
  if (result == status::Ok) {
    result = exchange.client.Init(exchange.settings.homeName, exchange.settings.homePort,
                                  exchange.settings.homeSSL);
  }
  if (result == status::Ok) {
    exchange.client.SetTrustFile(exchange.trustFile);
    // On the dial-home thread a shut-down must not wait out a request time-out (60 s): the
    // pool would give up first and leave the thread running on a destroyed client.
    if (nvthreads_threadctx* thread = nvthreads_workitem_query_threadctx(); thread != nullptr) {
      exchange.client.SetCancelCheck([thread] { return nvthreads_thread_query_stop(thread) != 0; });
    }
    result = ConnectWithRetry(exchange);
    if (result == status::Ok) {
      result = SendRequest(exchange);
      exchange.client.Disconnect();
    }
  }
  if (result == status::Ok) {
    KRO_LOG_INFO << "Dial home complete status: " << StatusText(result);
  } else {
    KRO_LOG_ERROR << "Dial home complete status: " << StatusText(result);
  }
  return result;
}

long DialHome::BuildPayload(Exchange& exchange, DialHomeType type,
                            const std::vector<AlertText>& alerts, AlertBatch& batch) {
  SystemInventory& inventory = exchange.inventory;
  long st = inventory.ResetInventory(exchange.settings);
  if (status::Failed(st)) {
    return st;
  }
  st = inventory.GatherSystemInfo();
  if (status::Failed(st)) {
    KRO_LOG_ERROR << "Error gathering system info, status " << StatusText(st);
    return st;
  }
  inventory.flags |= SystemInventory::kSystem;
  st = inventory.GatherAgentInfo();
  if (status::Failed(st)) {
    KRO_LOG_ERROR << "Error gathering agent info, status " << StatusText(st);
    return st;
  }
  inventory.flags |= SystemInventory::kAgent;
  // The product may not be installed yet; the report goes without it.
  if (!status::Failed(inventory.GatherProductInfo())) {
    inventory.flags |= SystemInventory::kProduct;
  }

  std::ostringstream out;
  hlp::JsonWriter writer(out);
  writer.Object();
  writer.Name("General");
  writer.Object();
  writer.Name("Type");
  writer.Int(static_cast<int32_t>(type));
  writer.Name("Code");
  writer.Int(0);
  // A string, so that readers without 64-bit integers keep every digit.
  writer.Name("Time");
  writer.String(std::to_string(CurrentFileTime()));
  writer.EndObject();
  if (inventory.WriteInventoryJson(writer, inventory.flags) != status::Ok) {
    return status::MalformedData;
  }
  writer.Name("Alerts");
  writer.Object();
  writer.Name("Data");
  writer.Array();
  batch = WriteAlertData(writer, alerts, kAlertBudget);
  writer.EndArray();
  writer.EndObject();
  writer.EndObject();
  if (!writer.IsGood()) {
    return status::MalformedData;
  }
  exchange.payload = out.str();
  return status::Ok;
}

long DialHome::ConnectWithRetry(Exchange& exchange) {
  const DialHomeWaits& waits = exchange.waits;
  exchange.client.SetTimeouts(waits.connectTimeoutMs, waits.requestTimeoutMs);
  // The budget counts the pauses between attempts, not the attempts themselves: a server
  // whose network drops the packets gets as many attempts as one that refuses at once.
  uint64_t waited = 0;
  for (;;) {
    KRO_LOG_INFO << "Trying connect to dial home server";
    if (exchange.client.Connect() == status::Ok) {
      return status::Ok;
    }
    KRO_LOG_ERROR << "Connect to dial home server failed: " << exchange.client.LastError();
    // Without a pause the budget would never be used up.
    if (waited >= waits.connectBudgetMs || waits.connectIntervalMs == 0) {
      return status::ConnectExhausted;
    }
    if (nvthreads_thread_sleep(nvthreads_workitem_query_threadctx(), waits.connectIntervalMs) !=
        0) {
      // The agent is shutting down; it will not wait for the rest of the budget.
      return status::ConnectExhausted;
    }
    waited += waits.connectIntervalMs;
  }
}

long DialHome::SendRequest(Exchange& exchange) {
  hlp::HttpRequest request(kDialHomePath);
  request.SetHeader("User-Agent", kUserAgent);
  {
    std::lock_guard<std::mutex> lock(exchange.bufferMutex);
    MessageBuffer& buffer = exchange.buffer;
    request.SetBody(std::string(buffer.bytes.data(), buffer.used));
    std::fill_n(buffer.bytes.begin(), buffer.used, '\0');
    buffer.used = 0;
    buffer.count = 0;
  }

  KRO_LOG_INFO << "Executing request from Dial Home Client";
  hlp::HttpResponse response;
  if (const long st = exchange.client.ExecuteRequest(request, response); st != status::Ok) {
    KRO_LOG_ERROR << "Execute request from Dial Home Client failed: "
                  << exchange.client.LastError();
    return st;
  }

  exchange.reply.clear();
  if (response.status == 200) {
    if (ParseReplyRecord(response.body.data(), response.body.size(), exchange.reply) !=
        status::Ok) {
      KRO_LOG_ERROR << "Malformed dial home reply of " << response.body.size() << " bytes";
      return status::MalformedData;
    }
  } else {
    KRO_LOG_ERROR << "Dial Home request HTTP status: " << hlp::HttpStatusToString(response.status);
  }

  bool accepted = false;
  if (const long st = ParseReplyResult(exchange.reply, accepted); st != status::Ok) {
    return st;
  }
  if (!accepted) {
    // The server heard us and declined; asking again would not change its mind.
    KRO_LOG_INFO << "Dial home not accepted by the server";
    return status::Ok;
  }
  return exchange.inventory.PersistInventory(SystemInventory::kSystem);
}

long DialHome::TestConnection(const DialHomeInfo& settings) {
  try {
    auto exchange = std::make_unique<Exchange>();
    exchange->settings = settings;
    {
      std::lock_guard<std::mutex> lock(settingsMutex_);
      exchange->waits = waits_;
    }
    long st = exchange->client.Init(settings.homeName, settings.homePort, settings.homeSSL);
    if (st != status::Ok) {
      return st;
    }
    exchange->client.SetTrustFile(TrustFile());
    exchange->client.SetTimeouts(exchange->waits.connectTimeoutMs,
                                 exchange->waits.requestTimeoutMs);
    st = exchange->client.Connect();
    if (st != status::Ok) {
      KRO_LOG_ERROR << "Test connection to " << settings.homeName << ":" << settings.homePort
                    << " failed: " << exchange->client.LastError();
      return st;
    }
    exchange->client.Disconnect();
    return status::Ok;
  } catch (const std::bad_alloc&) {
    return status::OutOfMemory;
  } catch (...) {
    return status::Failure;
  }
}

long DialHome::AddAlert(const std::string& text) {
  return alerts_.Add(text);
}

void DialHome::SetAlertDelivered(std::function<void(const std::string& alertId)> delivered) {
  std::lock_guard<std::mutex> lock(settingsMutex_);
  delivered_ = std::move(delivered);
}

void DialHome::ReportDelivered(const std::vector<AlertText>& alerts) {
  std::function<void(const std::string&)> delivered;
  {
    std::lock_guard<std::mutex> lock(settingsMutex_);
    delivered = delivered_;
  }
  if (!delivered) {
    return;
  }
  for (const AlertText& alert : alerts) {
    std::string id;
    if (!AlertIdOf(*alert, id)) {
      continue;
    }
    try {
      delivered(id);
    } catch (...) {
      KRO_LOG_ERROR << "Marking alert " << id << " as delivered failed";
    }
  }
}

size_t DialHome::AlertQueueSize() const {
  return alerts_.Size();
}

DialHomeSchedule DialHome::Schedule() const {
  return schedule_;
}

void DialHome::SetHostDirectory(const std::filesystem::path& folder) {
  try {
    std::lock_guard<std::mutex> lock(settingsMutex_);
    hostDirectory_ = folder;
  } catch (...) {
    // Keeps the executable's folder.
  }
}

void DialHome::SetConnectionWaits(const DialHomeWaits& waits) {
  std::lock_guard<std::mutex> lock(settingsMutex_);
  waits_ = waits;
  waitsOverridden_ = true;
}

std::filesystem::path DialHome::TrustFile() const {
  std::filesystem::path folder;
  {
    std::lock_guard<std::mutex> lock(settingsMutex_);
    folder = hostDirectory_;
  }
  if (folder.empty()) {
    std::wstring host;
    if (GetHostDirectory(host) != status::Ok) {
      return {};
    }
    folder = ToFilePath(host);
  }
  return folder / kTrustFileName;
}

}  // namespace kro
