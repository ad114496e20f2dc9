#include "server/UpstreamQueue.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "core/KroStatus.h"
#include "server/JobRecord.h"

namespace kro {
namespace {

namespace status = kro::status;

// A job record as the upper tier sends it: five words, then the texts with their zeros.
std::string InboundRecord(const std::string& name, const std::string& first,
                          const std::string& second) {
  auto word = [](uint32_t v) { return std::string(reinterpret_cast<const char*>(&v), 4); };
  const auto total = static_cast<uint32_t>(20 + name.size() + first.size() + second.size() + 3);
  return word(total) + word(0) + word(static_cast<uint32_t>(name.size() + 1)) +
         word(static_cast<uint32_t>(first.size() + 1)) +
         word(static_cast<uint32_t>(second.size() + 1)) + name + '\0' + first + '\0' + second +
         '\0';
}

// Splits outbound records (four words each) back into their three texts.
std::vector<std::vector<std::string>> Outbound(const std::string& data) {
  std::vector<std::vector<std::string>> records;
  size_t at = 0;
  while (data.size() - at >= 16) {
    uint32_t words[4];
    std::memcpy(words, data.data() + at, sizeof(words));
    std::vector<std::string> texts;
    size_t text = at + 16;
    for (int i = 1; i < 4; ++i) {
      texts.push_back(words[i] == 0 ? "<none>" : std::string(data.c_str() + text));
      text += words[i];
    }
    records.push_back(texts);
    at += words[0];
  }
  return records;
}

char* Copy(const std::string& text) {
  char* out = new char[text.size() + 1];
  std::memcpy(out, text.c_str(), text.size() + 1);
  return out;
}

class UpstreamQueueTests : public testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(queue_.Allocate(), status::Ok); }

  long Exchange(const std::string& body) {
    written_.clear();
    return queue_.Exchange(body, [this](const char* data, size_t length) {
      written_.assign(data, length);
      return status::Ok;
    });
  }
  std::string Payload() const { return written_.substr(written_.find("\r\n\r\n") + 4); }

  KroAgent::RoutineTable routines_;
  UpstreamQueue queue_{&routines_};
  std::string written_;
};

TEST_F(UpstreamQueueTests, EmptyExchangeReturnsAndClearsQueuedRecords) {
  ASSERT_EQ(queue_.PutUpstream(kProcessJobDone, "answer", "job-1"), status::Ok);
  ASSERT_EQ(queue_.PutUpstream("Message", nullptr, "text"), status::Ok);
  const size_t queued = queue_.OutboundLength();

  ASSERT_EQ(Exchange(""), status::Ok);
  EXPECT_EQ(written_.rfind("HTTP/1.1 200 OK\r\ncontent-Type: text/html\r\ncontent-Length: " +
                               std::to_string(queued) + "\r\n\r\n",
                           0),
            0u);
  const std::vector<std::vector<std::string>> expected = {{"ProcessJobDone", "answer", "job-1"},
                                                          {"Message", "<none>", "text"}};
  EXPECT_EQ(Outbound(Payload()), expected);

  ASSERT_EQ(Exchange(""), status::Ok);
  EXPECT_EQ(Payload(), "");
}

TEST_F(UpstreamQueueTests, InboundRecordsReachTheirRoutinesAndAnswersQueue) {
  std::string processJobSlot;
  routines_.Register(
      "Echo", [](const char* request, size_t length, const char** answer, size_t* answerLength) {
        *answer = Copy("echo:" + std::string(request, length));
        *answerLength = std::strlen(*answer);
        return 0L;
      });
  routines_.Register("ProcessJob",
                     [&](const char*, size_t, const char** answer, size_t* answerLength) {
                       processJobSlot = *answer != nullptr ? *answer : "";
                       *answer = Copy("started");
                       *answerLength = 7;
                       return 0L;
                     });
  routines_.Register("Crash", [](const char*, size_t, const char**, size_t*) -> long {
    throw std::runtime_error("boom");
  });
  const std::string job = R"({"jobDetails":{"id":7}})";
  std::string broken = InboundRecord("Echo", "lost", "");
  broken[8] = 100;  // the name would run past the record
  // A zero size ends the walk: nothing after it can be found (and the walk must not spin).

  ASSERT_EQ(
      Exchange(InboundRecord("Echo", "hi", "") + broken + InboundRecord("Crash", "x", "") +
               InboundRecord("ProcessJob", job, "job-7") + InboundRecord("Other", job, "job-8") +
               std::string(4, '\0') + InboundRecord("Echo", "after a zero size", "")),
      status::Ok);
  EXPECT_EQ(processJobSlot, "job-7");
  const std::vector<std::vector<std::string>> expected = {
      {"Echo", "echo:hi", "hi"},
      {"ProcessJob", "started", job},
      {"ProcessJobDone", "<none>", "job-8"},
  };
  EXPECT_EQ(Outbound(Payload()), expected);
}

TEST(UpstreamQueueLimitTests, RecordThatWouldOverflowIsDropped) {
  UpstreamQueue queue(nullptr, 96);
  ASSERT_EQ(queue.Allocate(), status::Ok);
  std::vector<char> record;
  ASSERT_EQ(BuildJobRecord("0123456789", "0123456789", "0123456789", record), status::Ok);
  ASSERT_EQ(record.size(), 49u);
  EXPECT_EQ(queue.PutUpstream(record), status::Ok);
  EXPECT_EQ(queue.PutUpstream(record), status::BufferTooSmall);
  EXPECT_EQ(queue.OutboundLength(), 49u);

  // With no room for the header the queued bytes still go out, bare, and the queue empties.
  std::string written;
  EXPECT_EQ(queue.Exchange("",
                           [&](const char* data, size_t length) {
                             written.assign(data, length);
                             return status::Ok;
                           }),
            status::BufferTooSmall);
  EXPECT_EQ(written, std::string(record.begin(), record.end()));
  EXPECT_EQ(queue.OutboundLength(), 0u);
}

}  // namespace
}  // namespace kro
