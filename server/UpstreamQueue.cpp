#include "server/UpstreamQueue.h"

#include <cstring>
#include <functional>
#include <string>

#include "core/KroStatus.h"
#include "hlp/Json.h"
#include "logging_support/logging_support.h"
#include "server/JobRecord.h"

namespace kro {
namespace {

constexpr std::string_view kProcessJob = "ProcessJob";

// A record is a job when its first text is JSON with an object named "jobDetails".
bool IsJob(const std::string& text) {
  hlp::JsonParser parser;
  const auto root = parser.Parse(text);
  const hlp::JsonValue* details = root != nullptr ? root->FindMember("jobDetails") : nullptr;
  return details != nullptr && details->GetKind() == hlp::JsonValue::kObject;
}

}  // namespace

UpstreamQueue::UpstreamQueue(const KroAgent::RoutineTable* routines, size_t capacity)
    : routines_(routines), inboundCapacity_(capacity), outboundCapacity_(capacity) {}

UpstreamQueue::~UpstreamQueue() = default;

long UpstreamQueue::Allocate() {
  long result = status::Ok;
  {
    std::lock_guard<std::mutex> guard(inboundLock_);
    inbound_.reset(static_cast<char*>(std::calloc(inboundCapacity_, 1)));
    inboundLength_ = 0;
    result = inbound_ != nullptr ? result : status::WinOutOfMemory;
  }
  std::lock_guard<std::mutex> guard(outboundLock_);
  outbound_.reset(static_cast<char*>(std::calloc(outboundCapacity_, 1)));
  outboundLength_ = 0;
  return outbound_ != nullptr ? result : status::WinOutOfMemory;
}

long UpstreamQueue::PutUpstream(const std::vector<char>& record) {
  std::lock_guard<std::mutex> guard(outboundLock_);
  if (outbound_ == nullptr) {
    return status::WinInvalidParameter;
  }
  if (record.size() > outboundCapacity_ - outboundLength_) {
    return status::BufferTooSmall;
  }
  std::memcpy(outbound_.get() + outboundLength_, record.data(), record.size());
  outboundLength_ += record.size();
  return status::Ok;
}

long UpstreamQueue::PutUpstream(const char* name, const char* first, const char* second) {
  std::vector<char> record;
  if (const long st = BuildJobRecord(name, first, second, record); st != status::Ok) {
    return st;
  }
  return PutUpstream(record);
}

size_t UpstreamQueue::OutboundLength() const {
  std::lock_guard<std::mutex> guard(outboundLock_);
  return outboundLength_;
}

long UpstreamQueue::Exchange(std::string_view body, const Writer& write) {
  {
    std::lock_guard<std::mutex> guard(inboundLock_);
    if (inbound_ != nullptr && !body.empty() && body.size() <= inboundCapacity_) {
      std::memcpy(inbound_.get(), body.data(), body.size());
      inboundLength_ = body.size();
      ForEachInboundJobRecord(inbound_.get(), inboundLength_, [this](const char* at, size_t size) {
        long st = status::Failure;
        try {
          st = ProcessInbound(at, size);
        } catch (...) {
          // One record's failure must not cost the others their turn.
        }
        if (st != status::Ok) {
          KRO_LOG_ERROR << "Job record skipped: 0x" << std::hex << status::Bits(st);
        }
      });
      std::memset(inbound_.get(), 0, inboundLength_);
      inboundLength_ = 0;
    }
  }

  std::lock_guard<std::mutex> guard(outboundLock_);
  if (outbound_ == nullptr) {
    return status::WinInvalidParameter;
  }
  long result = status::Ok;
  std::string header;
  try {
    header = "HTTP/1.1 200 OK\r\ncontent-Type: text/html\r\ncontent-Length: " +
             std::to_string(outboundLength_) + "\r\n\r\n";
  } catch (...) {
    return status::OutOfMemory;
  }
  if (header.size() <= outboundCapacity_ - outboundLength_) {
    std::memmove(outbound_.get() + header.size(), outbound_.get(), outboundLength_);
    std::memcpy(outbound_.get(), header.data(), header.size());
    outboundLength_ += header.size();
  } else {
    result = status::BufferTooSmall;
  }
  const long written = write(outbound_.get(), outboundLength_);
  std::memset(outbound_.get(), 0, outboundLength_);
  outboundLength_ = 0;
  return result != status::Ok ? result : written;
}

long UpstreamQueue::ProcessInbound(const char* at, size_t size) {
  InboundJobRecord record;
  if (const long st = ReadInboundJobRecord(at, size, record); st != status::Ok) {
    return st;
  }
  const bool job = IsJob(record.first);
  const bool processJob = job && record.name == kProcessJob;

  const char* answer = nullptr;
  size_t answerLength = 0;
  std::function<RoutineFn> routine;
  if (routines_ != nullptr && routines_->Find(record.name, routine)) {
    // A "ProcessJob" routine gets both texts: the job as its request and the second text in
    // its answer slot, which it reads and may replace with its answer.
    if (processJob) {
      answer = record.second.c_str();
      answerLength = record.second.size();
    }
    try {
      routine(record.first.c_str(), record.first.size(), &answer, &answerLength);
    } catch (...) {
      KRO_LOG_ERROR << "Routine [" << record.name << "] failed on a job record";
    }
    if (answer == record.second.c_str()) {
      answer = nullptr;
      answerLength = 0;
    }
  }
  std::unique_ptr<const char[]> owned(answer);
  std::string answerText;
  if (answer != nullptr) {
    answerText.assign(answer, strnlen(answer, answerLength));
  }

  if (job && !processJob) {
    // Any other job is reported done at once, under its identifier.
    return PutUpstream(kProcessJobDone, answer != nullptr ? answerText.c_str() : nullptr,
                       record.second.c_str());
  }
  if (answer != nullptr) {
    return PutUpstream(record.name.c_str(), answerText.c_str(), record.first.c_str());
  }
  return status::Ok;
}

}  // namespace kro
