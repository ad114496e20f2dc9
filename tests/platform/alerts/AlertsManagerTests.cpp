#include "alerts/AlertsManager.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "core/KroStatus.h"
#include "tests/platform/alerts/AlertsTestSupport.h"
#include "tests/support/TestSupport.h"

namespace {

using kro::test::IdOf;
using kro::test::Member;
using KroAlerts::Alert;
using KroAlerts::AlertsManager;
using KroAlerts::DataSchema;
namespace status = kro::status;

constexpr int64_t kDay = 86400;

class AlertsManagerTests : public testing::Test {
 protected:
  void SetUp() override { Reopen(); }

  void Reopen() {
    manager_.reset();
    // A folder that does not exist yet: the manager makes it.
    manager_ = kro::test::OpenAlerts(callbacks_, dir_.Path() / "Kesta", routines_);
    ASSERT_NE(manager_, nullptr);
    manager_->setClock([this] { return now_; });
  }

  /** @brief Adds an alert and returns the id from its payload. */
  std::string Add(const char* name, unsigned int code, int64_t at = 1000) {
    now_ = at;
    Alert alert(name, code, 0, true);
    alert.addParameter("system");
    EXPECT_EQ(manager_->addAlert(alert), status::Ok);
    const std::vector<std::string> payloads = callbacks_.Take();
    EXPECT_EQ(payloads.size(), 1u);
    return payloads.empty() ? std::string() : IdOf(payloads.back());
  }

  std::vector<std::string> Retrieve(const char* request) {
    callbacks_.Take();
    manager_->retrieveAlerts(request, 0, 0, 0);
    std::vector<std::string> ids;
    for (const std::string& payload : callbacks_.Take()) {
      ids.push_back(IdOf(payload));
    }
    return ids;
  }

  kro::test::TempDir dir_;
  kro::test::RecordingCallbacks callbacks_;
  kro::test::AlertRoutines routines_;
  int64_t now_ = 1000;
  std::unique_ptr<AlertsManager, void (*)(AlertsManager*)> manager_{nullptr, nullptr};
};

TEST_F(AlertsManagerTests, AddStoresAlertAndHandsPayloadOn) {
  now_ = 1234;
  Alert alert("DiskFull", 7, 2, true);
  alert.addParameter("system");
  alert.addParameter("C:\\ \"quoted\"");
  ASSERT_EQ(manager_->addAlert(alert), status::Ok);

  const std::vector<std::string> payloads = callbacks_.Take();
  ASSERT_EQ(payloads.size(), 1u);
  const std::string& payload = payloads[0];
  const std::string id = IdOf(payload);
  EXPECT_EQ(id.size(), 32u);
  EXPECT_EQ(id.find_first_not_of("0123456789abcdef"), std::string::npos);
  const std::pair<const char*, const char*> members[] = {
      {"type", R"("DiskFull")"}, {"code", "7"},
      {"schema", "0"},           {"severity", "2"},
      {"raised", "1234"},        {"updated", "1234"},
      {"sent", "(none)"},        {"parameters", R"(["system","C:\\ \"quoted\""])"}};
  for (const auto& [name, value] : members) {
    EXPECT_EQ(Member(payload, name), value) << name;
  }

  std::string stored;
  ASSERT_EQ(manager_->getAlert(id.c_str(), stored), status::Ok);
  EXPECT_NE(stored.find("\"sent\":false"), std::string::npos) << stored;
  EXPECT_EQ(manager_->getAlertCount(0), 1);

  // A transient alert travels but is not kept; a nameless one is refused outright.
  EXPECT_EQ(manager_->addAlert(Alert("Blip", 1, 0, false)), status::Ok);
  EXPECT_EQ(callbacks_.Take().size(), 1u);
  EXPECT_EQ(manager_->addAlert(Alert(nullptr, 1, 0, true)), status::NotAvailable);
  EXPECT_TRUE(callbacks_.Take().empty());
  EXPECT_EQ(manager_->getAlertCount(0), 1);
}

TEST_F(AlertsManagerTests, RetrieveHandsOnUnsentOrAll) {
  const std::string a = Add("A", 1);
  const std::string b = Add("B", 1);
  const std::string c = Add("C", 1);
  EXPECT_EQ(manager_->markAlertAsSent(b), status::Ok);
  EXPECT_EQ(manager_->markAlertAsSent("no-such-id"), status::NotFound);

  EXPECT_EQ(Retrieve(R"({"getAll":false})"), (std::vector<std::string>{a, c}));
  EXPECT_EQ(Retrieve(nullptr), (std::vector<std::string>{a, c}));
  EXPECT_EQ(Retrieve(R"({"getAll":true})"), (std::vector<std::string>{a, b, c}));
  EXPECT_EQ(manager_->getAlertCount(1), 2);

  for (const char* bad : {"{", "[]", R"({"getAll":1})"}) {
    SCOPED_TRACE(bad);
    EXPECT_EQ(manager_->retrieveAlerts(bad, 0, 0, 0), status::MalformedData);
    EXPECT_TRUE(callbacks_.Take().empty());
  }
}

TEST_F(AlertsManagerTests, PurgeRemovesByAgeOfLastUpdate) {
  // left: types still stored, oldest first
  const std::tuple<int64_t, int, long, const char*> cases[] = {
      {30, 0, 2, "Late"},
      {60, 0, 1, "MiddleLate"},
      {30, AlertsManager::kPurgeKeepUnsent, 1, "OldLate"},  // Middle was sent
      {0, 0, 3, ""},
      {-1, 0, status::NotAvailable, "OldMiddleLate"}};
  for (const auto& [days, flags, removed, wantLeft] : cases) {
    SCOPED_TRACE(std::to_string(days) + " days, flags " + std::to_string(flags));
    manager_->removeAllAlerts();
    Add("Old", 1, 0);
    manager_->markAlertAsSent(Add("Middle", 1, 50 * kDay));
    Add("Late", 1, 95 * kDay);
    now_ = 100 * kDay;
    EXPECT_EQ(manager_->purgeAlerts(days, flags), removed);
    std::string left;
    std::string json;
    manager_->listAlerts(json, 0);
    for (const char* type : {"Old", "Middle", "Late"}) {
      if (json.find(std::string("\"type\":\"") + type + "\"") != std::string::npos) {
        left += type;
      }
    }
    EXPECT_EQ(left, wantLeft);
  }

  // An update renews an alert's age.
  manager_->removeAllAlerts();
  Add("Old", 1, 0);
  now_ = 99 * kDay;
  ASSERT_EQ(manager_->updateAlert(Alert("Old", 1, 0, true), KroAlerts::SYSTEM), 1);
  now_ = 100 * kDay;
  EXPECT_EQ(manager_->purgeAlerts(30, 0), 0);
}

TEST_F(AlertsManagerTests, UpdateSetsSchemaAndHandsOnAgain) {
  const std::string target = Add("Fan", 1, 100);
  Add("Fan", 2, 100);
  Add("Pump", 1, 100);
  ASSERT_EQ(manager_->markAlertAsSent(target), status::Ok);

  now_ = 500;
  ASSERT_EQ(manager_->updateAlert(Alert("Fan", 1, 0, true), KroAlerts::JOB), 1);
  const std::vector<std::string> payloads = callbacks_.Take();
  ASSERT_EQ(payloads.size(), 1u);
  EXPECT_EQ(IdOf(payloads[0]), target);
  EXPECT_EQ(Member(payloads[0], "schema"), std::to_string(KroAlerts::JOB));
  EXPECT_EQ(Member(payloads[0], "raised"), "100");
  EXPECT_EQ(Member(payloads[0], "updated"), "500");
  // The server has not seen the change yet.
  EXPECT_EQ(Retrieve(R"({"getAll":false})").size(), 3u);

  EXPECT_EQ(manager_->updateAlert(Alert("Fan", 9, 0, true), KroAlerts::JOB), status::NotFound);
  EXPECT_TRUE(callbacks_.Take().empty());
}

TEST_F(AlertsManagerTests, RemoveMatchesTypeSchemaAndCode) {
  const std::tuple<const char*, DataSchema, const char*, long> cases[] = {
      {"X", KroAlerts::UNKNOWN, "1", 1},  // not the X 1 that was moved to SYSTEM
      {"X", KroAlerts::SYSTEM, "1", 1},
      {"X", KroAlerts::UNKNOWN, "-1", 1},  // 4294967295 as "%d" prints it
      {"X", KroAlerts::UNKNOWN, "4294967295", 1},
      {"X", KroAlerts::UNKNOWN, nullptr, 3},
      {"X", KroAlerts::UNKNOWN, "", 3},
      {"x", KroAlerts::UNKNOWN, nullptr, 0},
      {"X", KroAlerts::JOB, nullptr, 0},
      {"X", KroAlerts::UNKNOWN, "1x", status::MalformedData},
      {nullptr, KroAlerts::UNKNOWN, "1", status::NotAvailable}};
  for (const auto& [type, schema, code, result] : cases) {
    SCOPED_TRACE(std::string(type ? type : "(null)") + " " + std::to_string(schema) + " " +
                 (code ? code : "(null)"));
    manager_->removeAllAlerts();
    Add("X", 1);
    manager_->updateAlert(Alert("X", 1, 0, true), KroAlerts::SYSTEM);
    callbacks_.Take();
    Add("X", 1);
    Add("X", 2);
    Add("X", 4294967295u);
    Add("Y", 1);
    EXPECT_EQ(manager_->removeAlerts(type, schema, code), result);
    EXPECT_EQ(manager_->getAlertCount(0), 5 - (result > 0 ? result : 0));
  }
}

TEST_F(AlertsManagerTests, RoutineListsNewestFirstWithSentFlag) {
  const std::string first = Add("First", 1, 10);
  const std::string second = Add("Second", 1, 20);
  const std::string third = Add("Third", 1, 20);  // same second: order of adding decides
  ASSERT_EQ(manager_->markAlertAsSent(second), status::Ok);

  // The agent looks routines up without regard to case.
  const auto routine = routines_.find(std::string_view("/arbalo/requests/GETALERTS.JSON"));
  ASSERT_NE(routine, routines_.end());
  const char* response = nullptr;
  size_t length = 0;
  ASSERT_EQ(routine->second("", 0, &response, &length), status::Ok);
  ASSERT_NE(response, nullptr);
  EXPECT_EQ(response[length], '\0');
  const auto root = hlp::JsonParser().Parse(std::string_view(response, length));
  delete[] response;
  const hlp::JsonValue* alerts = root ? root->FindMember("alerts") : nullptr;
  ASSERT_NE(alerts, nullptr);
  std::vector<std::string> listed;
  for (size_t i = 0; i < alerts->Size(); ++i) {
    const std::string alert = alerts->At(i)->ToString();
    listed.push_back(IdOf(alert) + " sent:" + Member(alert, "sent"));
  }
  EXPECT_EQ(listed, (std::vector<std::string>{third + " sent:false", second + " sent:true",
                                              first + " sent:false"}));
}

TEST_F(AlertsManagerTests, RoutineAnswersTheRequestedNewestAlertsAndTheTotal) {
  std::vector<std::string> newestFirst;
  for (int i = 0; i < 60; ++i) {
    newestFirst.insert(newestFirst.begin(), Add("Many", static_cast<unsigned>(i), 100 + i));
  }
  ASSERT_EQ(manager_->markAlertAsSent(newestFirst.back()), status::Ok);
  const auto newest = [&](size_t n) {
    return std::vector<std::string>(newestFirst.begin(), newestFirst.begin() + n);
  };
  struct Case {
    std::string request;
    long result;
    std::vector<std::string> ids;  // for a good request
  };
  const Case cases[] = {
      {"", status::Ok, newest(50)},
      {" {} ", status::Ok, newest(50)},
      {R"({"count":3,"other":true})", status::Ok, newest(3)},
      {std::string(R"({"count":2})") + '\0', status::Ok, newest(2)},
      {R"({"count":0})", status::Ok, {}},
      {R"({"count":18446744073709551615})", status::Ok, newest(60)},
      {R"({"count":-1})", status::MalformedData, {}},
      {R"({"count":2.5})", status::MalformedData, {}},
      {R"({"count":"5"})", status::MalformedData, {}},
      {"[5]", status::MalformedData, {}},
      {"{", status::MalformedData, {}},
  };
  const auto& routine = routines_.at(AlertsManager::kGetAlertsRoutine);
  for (const Case& c : cases) {
    SCOPED_TRACE(c.request);
    const char* response = nullptr;
    size_t length = 0;
    EXPECT_EQ(routine(c.request.data(), c.request.size(), &response, &length), c.result);
    ASSERT_NE(response, nullptr);
    const auto root = hlp::JsonParser().Parse(std::string_view(response, length));
    delete[] response;
    ASSERT_NE(root, nullptr);
    if (c.result != status::Ok) {
      EXPECT_TRUE(root->FindMember("error")->IsString());
      continue;
    }
    EXPECT_EQ(root->FindMember("total")->GetInt64(), 60);
    EXPECT_EQ(root->FindMember("unsent")->GetInt64(), 59);
    std::vector<std::string> listed;
    for (size_t i = 0; i < root->FindMember("alerts")->Size(); ++i) {
      listed.push_back(IdOf(root->FindMember("alerts")->At(i)->ToString()));
    }
    EXPECT_EQ(listed, c.ids);
  }
}

}  // namespace
