#pragma once

#include <cstddef>
#include <cstdlib>
#include <functional>
#include <memory>
#include <mutex>
#include <string_view>
#include <vector>

#include "core/RoutineTable.h"

namespace kro {

/** @brief Size of each job-exchange buffer: fixed, allocated once when the server starts. */
inline constexpr size_t kJobBufferBytes = 0x100000;

/** @brief The record name that reports a finished job to the upper tier. */
inline constexpr const char* kProcessJobDone = "ProcessJobDone";

/**
 * @brief The job exchange with the upper tier: records it sends are handed to their routines;
 * records queued for it (answers, messages, finished jobs) wait in the outbound buffer until
 * its next request collects them all.
 */
class UpstreamQueue {
 public:
  /** @brief Writes a complete answer to the requesting connection. */
  using Writer = std::function<long(const char* data, size_t length)>;

  explicit UpstreamQueue(const KroAgent::RoutineTable* routines, size_t capacity = kJobBufferBytes);
  ~UpstreamQueue();
  UpstreamQueue(const UpstreamQueue&) = delete;
  UpstreamQueue& operator=(const UpstreamQueue&) = delete;

  /** @brief Allocates both buffers zero-filled; 8 leaves the one that failed missing. */
  long Allocate();

  /**
   * @brief Appends one record to the outbound buffer. 0x80000191 when it would not fit (it
   * is then dropped), 87 without a buffer.
   */
  long PutUpstream(const std::vector<char>& record);
  /** @brief Builds a record from the three texts (null: absent) and appends it. */
  long PutUpstream(const char* name, const char* first, const char* second);

  /**
   * @brief One exchange: processes the records in `body`, then writes everything queued with
   * the answer header in front and empties the queue. 0x80000191 when the header did not fit
   * (the queued bytes are written bare), 87 without a buffer, else what `write` returns.
   */
  long Exchange(std::string_view body, const Writer& write);

  size_t OutboundLength() const;

 private:
  long ProcessInbound(const char* record, size_t size);

  const KroAgent::RoutineTable* routines_;
  const size_t inboundCapacity_;
  const size_t outboundCapacity_;
  // Zero-filled by calloc, which has fresh pages from the system zeroed already: a buffer
  // costs memory only as far as records have reached into it.
  struct FreeBuffer {
    void operator()(char* buffer) const { std::free(buffer); }
  };
  using Buffer = std::unique_ptr<char[], FreeBuffer>;

  Buffer inbound_;
  Buffer outbound_;
  size_t inboundLength_ = 0;
  size_t outboundLength_ = 0;
  std::mutex inboundLock_;
  mutable std::mutex outboundLock_;
};

}  // namespace kro
