#include "tests/support/TestSupport.h"

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <system_error>

#ifdef _WIN32
#include <cpuid.h>
#include <windows.h>
#include <winsock2.h>
#else
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>
#endif

namespace kro::test {

namespace {

std::filesystem::path UniqueTempPath() {
  static std::atomic<unsigned> counter{0};
  std::random_device rd;
  std::ostringstream name;
  name << "kro-test-" << std::hex << rd() << "-" << counter++;
  return std::filesystem::temp_directory_path() / name.str();
}

#ifdef _WIN32
void DeleteProductKeys() {
  RegDeleteTreeW(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Norvane Technologies");
}
#endif

}  // namespace

TempDir::TempDir() : path_(UniqueTempPath()) {
  std::filesystem::create_directories(path_);
}

TempDir::~TempDir() {
  std::error_code ec;
  std::filesystem::remove_all(path_, ec);
}

std::filesystem::path TempDir::Write(const std::string& name, const std::string& content) const {
  // Names are UTF-8 everywhere (a narrow path on Windows would be read in the ANSI code page).
  const auto file =
      path_ / std::filesystem::path(std::u8string(name.begin(), name.end())).make_preferred();
  std::filesystem::create_directories(file.parent_path());
  std::ofstream out(file, std::ios::binary | std::ios::trunc);
  out << content;
  return file;
}

std::string ReadFile(const std::filesystem::path& file) {
  std::ifstream in(file, std::ios::binary);
  std::ostringstream content;
  content << in.rdbuf();
  return content.str();
}

namespace {

#ifdef _WIN32
using Handle = SOCKET;
using Length = int;
void CloseSocket(Handle s) {
  closesocket(s);
}
#else
using Handle = int;
using Length = socklen_t;
void CloseSocket(Handle s) {
  close(s);
}
#endif

// A socket bound to a port of the system's choice on loopback; the port in `port`.
Handle BindLoopback(uint16_t& port) {
#ifdef _WIN32
  WSADATA data;
  WSAStartup(MAKEWORD(2, 2), &data);
#endif
  const Handle s = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  port = 0;
  if (bind(s, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0) {
    Length length = sizeof(address);
    if (getsockname(s, reinterpret_cast<sockaddr*>(&address), &length) == 0) {
      port = ntohs(address.sin_port);
    }
  }
  return s;
}

}  // namespace

uint16_t FreeTcpPort() {
  uint16_t port = 0;
  CloseSocket(BindLoopback(port));
  return port;
}

LoopbackListener::LoopbackListener() {
  const Handle s = BindLoopback(port_);
  listen(s, 16);
  socket_ = static_cast<intptr_t>(s);
}

LoopbackListener::~LoopbackListener() {
  Close();
}

void LoopbackListener::Close() {
  if (socket_ != -1) {
    CloseSocket(static_cast<Handle>(socket_));
    socket_ = -1;
  }
}

void SetEnv(const char* name, const char* value) {
#ifdef _WIN32
  _putenv_s(name, value != nullptr ? value : "");
#else
  if (value != nullptr) {
    setenv(name, value, 1);
  } else {
    unsetenv(name);
  }
#endif
}

ScopedRegistry::ScopedRegistry() {
#ifdef _WIN32
  DeleteProductKeys();
#else
  if (const char* old = std::getenv("KRO_REGISTRY_FILE"); old != nullptr) {
    saved_ = old;
    hadSaved_ = true;
  }
  file_ = dir_.Path() / "registry.reg";
  SetEnv("KRO_REGISTRY_FILE", file_.string().c_str());
#endif
}

ScopedRegistry::~ScopedRegistry() {
#ifdef _WIN32
  DeleteProductKeys();
#else
  SetEnv("KRO_REGISTRY_FILE", hadSaved_ ? saved_.c_str() : nullptr);
#endif
}

bool HypervisorPresent() {
#ifdef _WIN32
  unsigned eax = 0, ebx = 0, ecx = 0, edx = 0;
  return __get_cpuid(1, &eax, &ebx, &ecx, &edx) != 0 && (ecx & (1u << 31)) != 0;
#else
  std::ifstream in("/proc/cpuinfo");
  std::string line;
  while (std::getline(in, line)) {
    if (line.rfind("flags", 0) == 0) {
      return (line + ' ').find(" hypervisor ") != std::string::npos;
    }
  }
  return false;
#endif
}

}  // namespace kro::test
