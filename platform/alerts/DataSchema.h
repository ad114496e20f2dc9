#pragma once

namespace KroAlerts {

/**
 * @brief Which part of the managed machine an alert's data describes.
 *
 * The numbers travel in stored alerts and in the payloads the management server reads, so
 * they never change; 0 stands for an alert that no schema was given for.
 */
enum DataSchema : int {
  UNKNOWN = 0,
  SYSTEM = 1,
  JOB = 2,
  NET_DOMAIN = 3,
  UPDATE = 4,
  BIOS_GUID = 5,
};

}  // namespace KroAlerts
