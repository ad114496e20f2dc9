#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace KroAlerts {

/**
 * @brief One alert as the agent raises it: a type name, a numeric code and text parameters.
 *
 * The type text of an alert is its name; stored alerts are found again by type and code.
 * No member throws: when memory runs out a name or parameter is dropped rather than an
 * exception escaping into the agent.
 */
class Alert {
 public:
  /**
   * @brief Builds an alert.
   * @param name type name (null counts as empty, which AlertsManager refuses)
   * @param code the product's numeric code of the event
   * @param severity kept with the alert and reported as it is
   * @param persistent true: stored until purged; false: handed to the management server only
   */
  Alert(const char* name, unsigned int code, int severity, bool persistent);
  ~Alert();
  Alert(const Alert&) = default;
  Alert& operator=(const Alert&) = default;

  /** @brief Appends a parameter; null is ignored. */
  void addParameter(const char* value);

  /**
   * @brief Writes the type text into `buffer`, cut to fit and always zero-terminated.
   * @return the full length of the type text (a result >= `size` means it was cut), or -1
   * when there is no buffer to write to
   */
  int getType(char* buffer, size_t size) const;

  const std::string& getName() const { return name_; }
  unsigned int getCode() const { return code_; }
  int getSeverity() const { return severity_; }
  bool isPersistent() const { return persistent_; }
  const std::vector<std::string>& getParameters() const { return parameters_; }

 private:
  std::string name_;
  unsigned int code_ = 0;
  int severity_ = 0;
  bool persistent_ = true;
  std::vector<std::string> parameters_;
};

}  // namespace KroAlerts
