#pragma once

// The alerts' texts: the parameters as the store keeps them in one column, and an alert as it
// is handed to the agent and answered to the browser.

#include <string>
#include <string_view>
#include <vector>

#include "alerts/AlertStore.h"

namespace KroAlerts {

/** @brief The parameters column: a JSON array of strings. */
std::string ParametersJson(const std::vector<std::string>& parameters);

/**
 * @brief The parameters back from their column. Whoever else wrote the file may have left
 * anything there: text that is no array gives none, and elements that are no strings are
 * taken as their text (numbers) or as empty.
 */
std::vector<std::string> ParseParameters(std::string_view text);

/**
 * @brief One alert as one compact JSON object: "id", "type", "code", "schema", "severity",
 * "parameters", "raised", "updated", and "sent" when `withSent`.
 */
std::string AlertJson(const AlertRecord& record, bool withSent);

/** @brief The alerts as a JSON array of AlertJson objects with "sent". */
std::string AlertArrayJson(const std::vector<AlertRecord>& records);

}  // namespace KroAlerts
