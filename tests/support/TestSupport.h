#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>

namespace kro::test {

/** @brief A fresh directory under the system temp folder, removed with everything in it. */
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::filesystem::path& Path() const { return path_; }
  /** @brief Writes `content` (bytes as they are) to `name` inside the directory. */
  std::filesystem::path Write(const std::string& name, const std::string& content) const;

 private:
  std::filesystem::path path_;
};

/** @brief Writes `content` (bytes as they are) to `file`, making its folder. */
void WriteFile(const std::filesystem::path& file, const std::string& content);
/** @brief The whole content of a file, or empty when it cannot be read. */
std::string ReadFile(const std::filesystem::path& file);

/** @brief A TCP port no one listens on right now (the system's pick for port 0). */
uint16_t FreeTcpPort();

/**
 * @brief Holds a loopback port bound but not listening, for as long as it lives: connecting is
 * refused, and no other test can be handed the port meanwhile (a port merely found free can be).
 */
class RefusingPort {
 public:
  RefusingPort();
  ~RefusingPort();
  RefusingPort(const RefusingPort&) = delete;
  RefusingPort& operator=(const RefusingPort&) = delete;

  uint16_t Port() const { return port_; }

 private:
  struct State;
  std::unique_ptr<State> state_;
  uint16_t port_ = 0;
};

/**
 * @brief A socket listening on a free loopback port that never accepts: connections complete
 * in the system's backlog and wait. Closing it resets them.
 */
class LoopbackListener {
 public:
  LoopbackListener();
  ~LoopbackListener();
  LoopbackListener(const LoopbackListener&) = delete;
  LoopbackListener& operator=(const LoopbackListener&) = delete;

  uint16_t Port() const { return port_; }
  void Close();

 private:
  struct State;
  std::unique_ptr<State> state_;
  uint16_t port_ = 0;
};

/**
 * @brief Whether the machine runs under a hypervisor, as seen apart from the agent: the
 * kernel's "hypervisor" processor flag on Linux, the processor's own bit elsewhere on x86.
 */
bool HypervisorPresent();

/** @brief Sets (or with null, removes) an environment variable of this process. */
void SetEnv(const char* name, const char* value);

/**
 * @brief A private, empty HKEY_LOCAL_MACHINE for the life of the object.
 *
 * POSIX: points KRO_REGISTRY_FILE at a file in a temporary folder (restored afterwards).
 * Windows: deletes the product's keys ("SOFTWARE\\Norvane Technologies") before and after, so
 * tests that use the registry must not run concurrently.
 */
class ScopedRegistry {
 public:
  ScopedRegistry();
  ~ScopedRegistry();
  ScopedRegistry(const ScopedRegistry&) = delete;
  ScopedRegistry& operator=(const ScopedRegistry&) = delete;

  /** @brief The registry file (POSIX); empty on Windows. */
  const std::filesystem::path& File() const { return file_; }

 private:
  TempDir dir_;
  std::filesystem::path file_;
  std::string saved_;
  bool hadSaved_ = false;
};

}  // namespace kro::test
