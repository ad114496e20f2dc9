// The job exchange with the upper tier: a request body of inbound job records, each handed to
// the routine it names, and the answer that carries back what was queued. The answer's header
// must count its records exactly, and every outbound record must frame itself within it.

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

#include "core/KroStatus.h"
#include "core/RoutineTable.h"
#include "fuzz/FuzzSupport.h"
#include "server/JobRecord.h"
#include "server/UpstreamQueue.h"

namespace {

using kro::fuzz::Check;

char* Copy(std::string_view text) {
  char* out = new char[text.size() + 1];
  std::memcpy(out, text.data(), text.size());
  out[text.size()] = '\0';
  return out;
}

// Routines as the agent and the product register them: one answers its request, one replaces
// the job's text in its answer slot, one answers nothing, one answers a text without its zero.
KroAgent::RoutineTable& Routines() {
  static KroAgent::RoutineTable* const table = [] {
    auto* made = new KroAgent::RoutineTable();
    made->Register(
        "Echo", [](const char* request, size_t length, const char** answer, size_t* answerLength) {
          *answer = Copy(std::string_view(request, length));
          *answerLength = length;
          return 0L;
        });
    made->Register("ProcessJob", [](const char* /*request*/, size_t /*length*/, const char** answer,
                                    size_t* answerLength) {
      const std::string slot = *answer != nullptr ? std::string(*answer, *answerLength) : "";
      *answer = Copy("done:" + slot);
      *answerLength = slot.size() + 5;
      return 0L;
    });
    made->Register("Silent", [](const char*, size_t, const char**, size_t*) { return 0L; });
    made->Register("Unterminated", [](const char* /*request*/, size_t /*length*/,
                                      const char** answer, size_t* answerLength) {
      char* out = new char[4];
      std::memcpy(out, "abcd", 4);
      *answer = out;
      *answerLength = 4;
      return 0L;
    });
    return made;
  }();
  return *table;
}

/** @brief The answer's header and its outbound records, as the upper tier reads them. */
void CheckAnswer(std::string_view answer, size_t capacity) {
  constexpr std::string_view kHead =
      "HTTP/1.1 200 OK\r\ncontent-Type: text/html\r\ncontent-Length: ";
  const size_t end = answer.find("\r\n\r\n");
  Check(answer.substr(0, kHead.size()) == kHead && end != std::string_view::npos,
        "the job answer has no header", answer);
  const std::string_view records = answer.substr(end + 4);
  Check(std::string(answer.substr(kHead.size(), end - kHead.size())) ==
            std::to_string(records.size()),
        "the job answer's content-Length is not its length", answer);
  Check(answer.size() <= capacity, "the job answer is larger than its buffer");
  size_t at = 0;
  while (at < records.size()) {
    Check(records.size() - at >= kro::kOutboundJobHeaderBytes, "an outbound record is cut short");
    uint32_t words[4];
    std::memcpy(words, records.data() + at, sizeof(words));
    const uint64_t texts = uint64_t{words[1]} + words[2] + words[3];
    Check(words[0] == kro::kOutboundJobHeaderBytes + texts && words[0] <= records.size() - at,
          "an outbound record's sizes do not add up", answer);
    at += words[0];
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  kro::fuzz::QuietLogger();
  Routines();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view body = kro::fuzz::Text(data, size);
  kro::ForEachInboundJobRecord(body.data(), body.size(), [](const char* at, size_t length) {
    kro::InboundJobRecord record;
    kro::ReadInboundJobRecord(at, length, record);
  });

  // A small queue, so answers that do not fit are met as well.
  constexpr size_t kCapacity = 4096;
  kro::UpstreamQueue queue(&Routines(), kCapacity);
  Check(queue.Allocate() == kro::status::Ok, "no job buffers");
  std::string answer;
  const long st = queue.Exchange(body, [&answer](const char* bytes, size_t length) {
    answer.assign(bytes, length);
    return kro::status::Ok;
  });
  if (st == kro::status::Ok) {
    CheckAnswer(answer, kCapacity);
  }
  // The queue starts empty again: a second exchange without records answers an empty body.
  queue.Exchange({}, [&answer](const char* bytes, size_t length) {
    answer.assign(bytes, length);
    return kro::status::Ok;
  });
  CheckAnswer(answer, kCapacity);
  Check(answer.ends_with("\r\n\r\n"), "an exchange left records behind", answer);
  return 0;
}
