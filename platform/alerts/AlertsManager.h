#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>

#include "alerts/Alert.h"
#include "alerts/AlertsAgentInterface.h"
#include "alerts/DataSchema.h"
#include "core/KroAgentTypes.h"
#include "core/StringCompare.h"

namespace KroAlerts {

class AlertsCore;

/**
 * @brief Keeps the machine's alerts and hands them to the agent for the management server.
 *
 * Alerts live in an SQLite file in the alerts folder, so those raised before a restart still
 * travel with a later report. Every alert handed on goes through
 * AlertsAgentInterface::SendAlertData as one compact JSON object: "id", "type", "code",
 * "schema", "severity", "parameters" (array of strings), "raised" and "updated" (seconds since
 * 1970, UTC). An alert counts as unsent until markAlertAsSent names it.
 *
 * Every operation may be called from any thread; none throws. Results are a status (0, or a
 * negative kro::status code) or, where the description says so, a count of alerts.
 */
class AlertsManager {
 public:
  /** @brief Flag of `start`: hand every unsent alert on at once. */
  static constexpr int kStartSendUnsent = 1;
  /** @brief Flag of `purgeAlerts`: keep alerts the management server has not had yet. */
  static constexpr int kPurgeKeepUnsent = 1;
  /**
   * @brief Name of the routine that answers {"alerts":[...],"total":N,"unsent":M}: the newest
   * 50 alerts (with "sent"), newest first, how many are stored and how many of those are
   * unsent. A request {"count":N} asks for N (0 to 1000; more gives 1000); any other request
   * is answered {"error":"..."}.
   */
  static constexpr const char* kGetAlertsRoutine = "/Arbalo/Requests/getAlerts.json";

  /**
   * @brief Creates the manager and opens its database.
   *
   * @param callbacks the agent's side; must outlive the manager (null: alerts are stored only)
   * @param folders null-terminated list; the database lives in the first folder (created when
   *   missing). Without one the agent's folder from `callbacks` is used.
   * @param routines the agent's routine map; kGetAlertsRoutine is added unless present
   * @return the manager, or null when memory ran out; release it with `cleanup`
   */
  static AlertsManager* initialize(
      AlertsAgentInterface* callbacks, const char** folders,
      std::map<std::string, std::function<RoutineFn>, kro::case_insensitive_less>& routines);
  /** @brief Closes the database and frees the manager; the routine then answers NotAvailable. */
  static void cleanup(AlertsManager* manager);

  /** @brief Records that the management server has the alert; NotFound for an unknown id. */
  long markAlertAsSent(const std::string& id);

  /** @brief Replaces the clock (seconds since 1970), for tests and hosts with their own time. */
  void setClock(std::function<int64_t()> nowSeconds);

  // The order of the virtual operations is a contract: the agent calls them by their position
  // in the virtual table. New operations go after purgeAlerts, never in between.

  /** @brief 1. Puts the manager in service (reopens after `stop`); see kStartSendUnsent. */
  virtual long start(int flags);
  /**
   * @brief 2. Stores the alert (if persistent) with schema 0 and a new id and hands its payload
   * on. NotAvailable for an alert without a name.
   */
  virtual long addAlert(const Alert& alert);
  /**
   * @brief 3. Gives the stored alerts of the alert's type and code `schema` and a new update
   * time, marks them unsent and hands each on; count, or NotFound when none matched.
   */
  virtual long updateAlert(const Alert& alert, DataSchema schema);
  /** @brief 4. Count of stored alerts; with `unsentOnly` non-zero only the unsent ones. */
  virtual long getAlertCount(int unsentOnly);
  /**
   * @brief 5. Removes the alerts of that type text and schema and, unless `codeText` is null
   * or empty, of that code (signed or unsigned decimal, as printed with "%d" or "%u"); count.
   */
  virtual long removeAlerts(const char* typeText, DataSchema schema, const char* codeText);
  /** @brief 6. One alert as its JSON object (with "sent") into `json`; NotFound if absent. */
  virtual long getAlert(const char* id, std::string& json);
  /** @brief 7. A JSON array of the alerts (with "sent"), newest first; count. */
  virtual long listAlerts(std::string& json, int unsentOnly);
  /**
   * @brief 8. Hands stored alerts on, oldest first: {"getAll":false} (or no request) the
   * unsent ones, {"getAll":true} all. At most `maxAlerts` when positive; the last two
   * arguments are reserved (0). Count handed on, or MalformedData.
   */
  virtual long retrieveAlerts(const char* jsonRequest, int maxAlerts, int reserved1, int reserved2);
  /** @brief 9. Removes one alert; NotFound if absent. */
  virtual long removeAlert(const char* id);
  /** @brief 10. Removes every alert; count. */
  virtual long removeAllAlerts();
  /** @brief 11. Folds the write-ahead log into the database file. */
  virtual long checkpoint();
  /** @brief 12. Closes the database; other operations answer NotAvailable until `start`. */
  virtual long stop();
  /**
   * @brief 13. Removes alerts last updated more than `olderThanDays` days ago (0: all updated
   * before now); see kPurgeKeepUnsent. Count, or NotAvailable for a negative limit.
   */
  virtual long purgeAlerts(int64_t olderThanDays, int flags);

 protected:
  AlertsManager();
  virtual ~AlertsManager();

 private:
  AlertsManager(const AlertsManager&) = delete;
  AlertsManager& operator=(const AlertsManager&) = delete;

  std::shared_ptr<AlertsCore> core_;
};

}  // namespace KroAlerts
