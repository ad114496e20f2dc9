#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "alerts/AlertStore.h"
#include "core/KroStatus.h"
#include "tests/platform/alerts/AlertsTestSupport.h"
#include "tests/support/TestSupport.h"

#ifndef _WIN32
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>
#endif

namespace {

using KroAlerts::Alert;
namespace fs = std::filesystem;
namespace status = kro::status;

class AlertsRecoveryTests : public testing::Test {
 protected:
  /** @brief Files in the test folder whose name starts with `prefix`. */
  std::vector<fs::path> FilesStartingWith(const std::string& prefix) const {
    std::vector<fs::path> found;
    for (const fs::directory_entry& entry : fs::directory_iterator(dir_.Path())) {
      if (entry.path().filename().string().rfind(prefix, 0) == 0) {
        found.push_back(entry.path());
      }
    }
    return found;
  }

  kro::test::TempDir dir_;
  kro::test::RecordingCallbacks callbacks_;
  kro::test::AlertRoutines routines_;
};

TEST_F(AlertsRecoveryTests, UnusableFileIsSetAsideAndReplaced) {
  const std::pair<const char*, std::string> cases[] = {
      {"garbage", std::string(4096, '\xA5')},
      // A valid header over pages of nonsense: opens, then fails its check.
      {"damaged pages", std::string("SQLite format 3\0", 16) + std::string(8176, '\x7F')},
  };
  for (const auto& [what, content] : cases) {
    SCOPED_TRACE(what);
    for (const fs::path& old : FilesStartingWith(KroAlerts::AlertStore::kFileName)) {
      fs::remove(old);
    }
    dir_.Write(KroAlerts::AlertStore::kFileName, content);

    std::string id;
    {
      auto manager = kro::test::OpenAlerts(callbacks_, dir_.Path(), routines_);
      ASSERT_NE(manager, nullptr);
      ASSERT_EQ(manager->addAlert(Alert("AfterRecovery", 1, 0, true)), status::Ok);
      id = kro::test::IdOf(callbacks_.Take().at(0));
    }
    const std::vector<fs::path> aside = FilesStartingWith("alerts.db.corrupt-");
    ASSERT_EQ(aside.size(), 1u);
    EXPECT_EQ(kro::test::ReadFile(aside[0]), content);

    // The fresh file is a real database: the alert is still there after a restart.
    auto manager = kro::test::OpenAlerts(callbacks_, dir_.Path(), routines_);
    std::string json;
    EXPECT_EQ(manager->getAlert(id.c_str(), json), status::Ok);
    EXPECT_EQ(FilesStartingWith("alerts.db.corrupt-").size(), 1u);
  }
}

TEST_F(AlertsRecoveryTests, KilledWriterLosesNoReportedAlert) {
#ifdef _WIN32
  GTEST_SKIP() << "needs fork and SIGKILL";
#else
  constexpr size_t kBeforeKill = 60;
  int pipeFds[2];
  ASSERT_EQ(pipe(pipeFds), 0);
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    // Adds alerts until killed; each id is reported only after addAlert returned.
    close(pipeFds[0]);
    auto manager = kro::test::OpenAlerts(callbacks_, dir_.Path(), routines_);
    for (unsigned int code = 0; manager != nullptr; ++code) {
      if (manager->addAlert(Alert("Crash", code, 0, true)) != status::Ok) {
        break;
      }
      const std::string line = kro::test::IdOf(callbacks_.Take().at(0)) + "\n";
      if (write(pipeFds[1], line.data(), line.size()) != static_cast<ssize_t>(line.size())) {
        break;
      }
    }
    _exit(2);
  }
  close(pipeFds[1]);

  // One short write per id, so each line arrives whole.
  FILE* reported = fdopen(pipeFds[0], "r");
  ASSERT_NE(reported, nullptr);
  std::vector<std::string> ids;
  for (char line[64]; std::fgets(line, sizeof(line), reported) != nullptr;) {
    ids.emplace_back(line, std::strcspn(line, "\n"));
    if (ids.size() == kBeforeKill) {
      kill(child, SIGKILL);
    }
  }
  std::fclose(reported);
  int childStatus = 0;
  ASSERT_EQ(waitpid(child, &childStatus, 0), child);
  ASSERT_TRUE(WIFSIGNALED(childStatus))
      << "the writer stopped by itself after " << ids.size() << " alerts";

  auto manager = kro::test::OpenAlerts(callbacks_, dir_.Path(), routines_);
  ASSERT_NE(manager, nullptr);
  EXPECT_TRUE(FilesStartingWith("alerts.db.corrupt-").empty());
  EXPECT_GE(manager->getAlertCount(0), static_cast<long>(ids.size()));
  for (const std::string& id : ids) {
    std::string json;
    EXPECT_EQ(manager->getAlert(id.c_str(), json), status::Ok) << id;
  }
#endif
}

}  // namespace
