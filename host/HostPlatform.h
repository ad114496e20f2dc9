#pragma once

#include <filesystem>
#include <string>

/** @brief What the host needs from the operating system, one backend per platform. */
namespace kro::host {

/** @brief File name of the agent module beside the host. */
extern const char* const kModuleFileName;

/** @brief Folder of the running executable (empty when it cannot be found). */
std::filesystem::path ExecutableFolder();

/** @brief Loads a module; null and a reason in `error` when it cannot be loaded. */
void* LoadModule(const std::filesystem::path& file, std::string& error);

/** @brief Address of an exported function, or null. */
void* FindExport(void* module, const char* name);

/**
 * @brief Keeps stop requests (SIGINT/SIGTERM, Ctrl+C) for WaitForStopRequest. Call before any
 * thread starts, so that every thread the module creates inherits it.
 */
void CaptureStopRequests();

/** @brief Blocks until a stop request arrives; returns its name ("SIGTERM", "Ctrl+C", ...). */
std::string WaitForStopRequest();

/**
 * @brief Lets the process open as many files and sockets as the system allows it (on POSIX the
 * soft descriptor limit is raised to the hard one; Windows has no such limit). The agent's
 * server sizes its connection cap from what this left. Returns the limit now in force, 0 when
 * it is unknown or unlimited.
 */
unsigned long RaiseOpenFileLimit();

/** @brief The local wall-clock time as "2024-05-01 14:03:22"; safe on any thread. */
std::string LocalTimeText();

}  // namespace kro::host
